// SPDX-License-Identifier: GPL-3.0-or-later
// The Debian package as a user gets it: installed with apt-get, narrating and showing its settings
// window from /usr/bin (so what only the running program loads, QML modules and plugins, must be there),
// and gone without a trace after apt-get remove.
#include "DevServer.h"
#include "X11Desktop.h"

#include "core/UserDefaults.h"

#include <QFileInfo>
#include <QTest>

#include <unistd.h>

namespace {

const QString kInstalled = QStringLiteral("/usr/bin/quillvox");
const QString kText = QStringLiteral("Installed from the package.");

// Runs a command to its end; its output (both channels) when it failed, empty when it succeeded.
QString failureOf(const QString &program, const QStringList &arguments, const QByteArray &input = {},
                  const QProcessEnvironment &env = QProcessEnvironment::systemEnvironment())
{
    QProcess process;
    process.setProcessEnvironment(env);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(300000))
        return program + QStringLiteral(" did not finish");
    if (process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0)
        return {};
    return program + QStringLiteral(" failed: ") + QString::fromUtf8(process.readAll());
}

QProcessEnvironment aptEnvironment()
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("DEBIAN_FRONTEND"), QStringLiteral("noninteractive"));
    return env;
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
    ChildProcess m_accessibility;
    ChildProcess m_app;
    QStringList m_files;

    QProcessEnvironment appEnvironment() const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("QUILLVOX_AUDIO_OUTPUT"), QStringLiteral("null"));
        env.insert(QStringLiteral("QUILLVOX_OPENAI_ORIGIN"), m_server.url().toString());
        env.insert(QStringLiteral("QT_LINUX_ACCESSIBILITY_ALWAYS_ON"), QStringLiteral("1"));
        return env;
    }

    void remove()
    {
        if (m_app.process.state() != QProcess::NotRunning) {
            m_app.process.terminate();
            if (!m_app.process.waitForFinished(10000))
                m_app.process.kill();
        }
        if (isInstalled())
            QCOMPARE(failureOf(QStringLiteral("apt-get"), {"remove", "-y", "quillvox"}, {}, aptEnvironment()),
                     QString());
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

        QCOMPARE(failureOf(QStringLiteral("apt-get"),
                           {"install", "-y", "--no-install-recommends", QFileInfo(deb).absoluteFilePath()},
                           {}, aptEnvironment()),
                 QString());
        QVERIFY(isInstalled());
        for (const QByteArray &line :
             runProgram(QStringLiteral("dpkg-query"), {"-L", "quillvox"}).split('\n')) {
            if (QFileInfo(QString::fromUtf8(line)).isFile())
                m_files.append(QString::fromUtf8(line));
        }
        QVERIFY(m_files.contains(kInstalled));
        QVERIFY2(m_server.start({"--pace", "0"}), qPrintable(m_server.errorString()));
    }

    void narratesFromUsrBin()
    {
        QCOMPARE(failureOf(kInstalled, {"--set-api-key"}, "local\n", appEnvironment()), QString());
        QCOMPARE(failureOf(kInstalled, {"--speak", kText}, {}, appEnvironment()), QString());
        const QList<QJsonObject> log = m_server.waitForRequests(1);
        QCOMPARE(log.size(), 1);
        QCOMPARE(DevServer::input(log.first()), kText);
    }

    // A second start of the running Quillvox shows its settings window, drawn by the QML modules the
    // package depends on.
    void showsItsSettingsWindow()
    {
        QVERIFY(startAccessibilityBus(m_accessibility));
        UserDefaults::standard().setBoolean(QStringLiteral("hasCompletedOnboarding"), true);
        UserDefaults::standard().sync();
        m_app.process.setProcessEnvironment(appEnvironment());
        m_app.process.setProcessChannelMode(QProcess::ForwardedChannels);
        m_app.process.start(kInstalled, {});
        QVERIFY(m_app.process.waitForStarted());
        // The running one owns its bus name once it is ready for a second start.
        QTRY_VERIFY_WITH_TIMEOUT(
            QString::fromUtf8(runProgram(kInstalled, {"--status"})).contains(u"\"playbackSpeed\""), 20000);
        QCOMPARE(failureOf(kInstalled, {}, {}, appEnvironment()), QString());
        QTRY_VERIFY_WITH_TIMEOUT(!findAccessibleControl(QStringLiteral("API Keys")).isEmpty(), 20000);
        QVERIFY(m_app.process.state() == QProcess::Running);
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
