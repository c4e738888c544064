// SPDX-License-Identifier: GPL-3.0-or-later
// Update checks against the dev server's feed, over real HTTP: `quillvox --check-for-updates`, and the
// automatic check's silence about a skipped version.
#include "DevServer.h"

#include "core/UserDefaults.h"
#include "updates/UpdateChecker.h"

#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
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
        DevServer server;
        QVERIFY2(server.start(serverOptions), qPrintable(server.errorString()));
        QProcess check;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("QUILLVOX_APPCAST_URL", serverOptions.isEmpty() ? "http://updates.example/appcast.xml"
                                                                   : server.url("/appcast.xml").toString());
        check.setProcessEnvironment(env);
        check.start(QStringLiteral(QUILLVOX_EXECUTABLE), {"--check-for-updates"});
        QVERIFY(check.waitForFinished(30000));
        const QString output =
            QString::fromUtf8(check.readAllStandardOutput() + check.readAllStandardError());
        QCOMPARE(check.exitCode(), exitCode);
        QTEST(output.section(u'\n', 0, 0), "firstLine");
    }

    // 2.0 is on the feed, 1.0 runs.
    void skippedVersionStaysQuiet_data()
    {
        QTest::addColumn<QString>("skipped");
        QTest::addColumn<bool>("announced");
        QTest::newRow("nothing skipped") << QString() << true;
        QTest::newRow("that version skipped") << "2.0" << false;
        QTest::newRow("an older one skipped") << "1.5" << true;
    }

    void skippedVersionStaysQuiet()
    {
        QFETCH(QString, skipped);
        QFETCH(bool, announced);
        DevServer server;
        QVERIFY2(server.start({"--appcast-version", "2.0"}), qPrintable(server.errorString()));
        QTemporaryDir dir;
        UserDefaults defaults(dir.filePath("settings.conf"));
        UpdateChecker checker({&defaults, nullptr, nullptr, server.url("/appcast.xml"), "1.0"});
        if (!skipped.isEmpty())
            checker.skipVersion(skipped);
        QSignalSpy found(&checker, &UpdateChecker::updateFound);
        checker.checkAutomaticallyIfDue();
        QTRY_VERIFY(!checker.isChecking());
        QCOMPARE(found.size(), announced ? 1 : 0);
    }
};

QTEST_GUILESS_MAIN(TestUpdateCheck)
#include "tst_updatecheck.moc"
