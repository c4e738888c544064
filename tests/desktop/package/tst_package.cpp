// SPDX-License-Identifier: GPL-3.0-or-later
// The Debian package as a user gets it: installed with apt-get, narrating and showing its settings
// window from /usr/bin (so what only the running program loads, QML modules and plugins, must be there),
// and gone without a trace after apt-get remove.
#include "AppUnderTest.h"

#include <unistd.h>

namespace {

const QString kInstalled = QStringLiteral("/usr/bin/quillvox");
const QString kText = QStringLiteral("Installed from the package.");

// apt-get's exit code, its output in the test's.
int aptGet(const QStringList &arguments)
{
    return QProcess::execute(QStringLiteral("env"),
                             QStringList{"DEBIAN_FRONTEND=noninteractive", "apt-get", "-y"} + arguments);
}

bool isInstalled()
{
    return runProgram(QStringLiteral("dpkg-query"), {"-W", "-f=${db:Status-Status}", "quillvox"}) ==
           "installed";
}

} // namespace

class TestPackage : public QObject
{
    Q_OBJECT

    DevServer m_server;
    AppUnderTest m_app{AppUnderTest::Accessibility::On, kInstalled};
    QStringList m_files;

    void remove()
    {
        if (m_app.isRunning())
            m_app.stop();
        if (isInstalled())
            QCOMPARE(aptGet({"remove", "quillvox"}), 0);
    }

private Q_SLOTS:
    void initTestCase()
    {
        const QString deb = qEnvironmentVariable("QUILLVOX_TEST_DEB");
        if (deb.isEmpty())
            QSKIP("QUILLVOX_TEST_DEB names no package (scripts/test.sh builds one with scripts/package.sh)");
        if (geteuid() != 0)
            QSKIP("installing a package needs root");
        if (const QString lack = desktopLacks(); !lack.isEmpty())
            QSKIP(qPrintable(lack));
        // Never replace a Quillvox that this machine's owner installed.
        QVERIFY2(!isInstalled() && !QFileInfo::exists(kInstalled), "quillvox is already installed here");

        QCOMPARE(aptGet({"install", "--no-install-recommends", QFileInfo(deb).absoluteFilePath()}), 0);
        QVERIFY(isInstalled());
        for (const QByteArray &line :
             runProgram(QStringLiteral("dpkg-query"), {"-L", "quillvox"}).split('\n')) {
            if (QFileInfo(QString::fromUtf8(line)).isFile())
                m_files.append(QString::fromUtf8(line));
        }
        QVERIFY(m_files.contains(kInstalled));
        QVERIFY2(m_server.start({"--pace", "0"}), qPrintable(m_server.errorString()));
        m_app.useServer(m_server);
    }

    void narratesFromUsrBin()
    {
        QCOMPARE(m_app.storeKey(), QString());
        const AppUnderTest::Run spoken = m_app.run({"--speak", kText});
        QVERIFY2(spoken.exitCode == 0, spoken.err.constData());
        const QList<QJsonObject> log = m_server.waitForRequests(1);
        QCOMPARE(log.size(), 1);
        QCOMPARE(DevServer::input(log.first()), kText);
    }

    // A second start of the running Quillvox shows its settings window, drawn by the QML modules the
    // package depends on.
    void showsItsSettingsWindow()
    {
        AppUnderTest::setSettings({{"hasCompletedOnboarding", true}});
        QVERIFY(m_app.start());
        const AppUnderTest::Run second = m_app.run({});
        QVERIFY2(second.exitCode == 0, second.err.constData());
        QVERIFY(!m_app.waitForControl(QStringLiteral("API Keys"), 0, 20000).isEmpty());
        QVERIFY(m_app.isRunning());
    }

    void removingLeavesNothing()
    {
        remove();
        QVERIFY(!isInstalled());
        for (const QString &file : std::as_const(m_files))
            QVERIFY2(!QFileInfo::exists(file), qPrintable(file));
    }

    void cleanupTestCase() { remove(); }
};

QTEST_GUILESS_MAIN(TestPackage)
#include "tst_package.moc"
