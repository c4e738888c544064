// SPDX-License-Identifier: GPL-3.0-or-later
// `quillvox --check-for-updates` against the dev server's feed, over real HTTP.
#include "DevServer.h"

#include <QProcess>
#include <QTest>

class TestUpdateCheck : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // serverOptions empty: the feed is a plain http address away from this machine.
    void againstTheFeed_data()
    {
        QTest::addColumn<QStringList>("serverOptions");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("firstLine");
        const QString version = QStringLiteral(QUILLVOX_VERSION);
        QTest::newRow("newer") << QStringList{"--appcast-version", "99.0"} << 0
                               << "Quillvox 99.0 is available.";
        QTest::newRow("the same") << QStringList{"--appcast-version", version} << 0 << "You're up to date.";
        QTest::newRow("older") << QStringList{"--appcast-version", "0.0.1"} << 0 << "You're up to date.";
        QTest::newRow("failing") << QStringList{"--appcast-fail", "503"} << 1
                                 << "Update check failed: the server answered 503";
        QTest::newRow("plain http away from this machine")
            << QStringList() << 1 << "Update check failed: the update feed must be an https address";
    }

    void againstTheFeed()
    {
        QFETCH(QStringList, serverOptions);
        QFETCH(int, exitCode);
        QFETCH(QString, firstLine);
        DevServer server;
        QVERIFY2(server.start(serverOptions), qPrintable(server.errorString()));
        QProcess check;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("QUILLVOX_APPCAST_URL"),
                   serverOptions.isEmpty() ? QStringLiteral("http://updates.example/appcast.xml")
                                           : server.url(QStringLiteral("/appcast.xml")).toString());
        check.setProcessEnvironment(env);
        check.start(QStringLiteral(QUILLVOX_EXECUTABLE), {QStringLiteral("--check-for-updates")});
        QVERIFY(check.waitForFinished(30000));
        const QString output =
            QString::fromUtf8(check.readAllStandardOutput() + check.readAllStandardError());
        QCOMPARE(check.exitCode(), exitCode);
        QCOMPARE(output.section(u'\n', 0, 0), firstLine);
    }
};

QTEST_GUILESS_MAIN(TestUpdateCheck)
#include "tst_updatecheck.moc"
