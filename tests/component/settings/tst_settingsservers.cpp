// SPDX-License-Identifier: GPL-3.0-or-later
// The settings' servers on loopback. The API Keys section's: "Test" and the next narration go to the
// server the user chose, with the key from the keyring. The update feed's: `quillvox --check-for-updates`,
// and the automatic check's silence about a skipped version.
#include "SpeechFixture.h"

#include "settings/ApiKeySettingsModel.h"
#include "updates/UpdateChecker.h"

#include <QProcess>

using TestState = ApiKeySettingsModel::TestState;

namespace {

// The section on the speech fixture's keychain and settings.
struct Rig
{
    SpeechFixture speech;
    ApiKeySettingsModel model{{.keychain = &speech.keychain,
                               .defaults = &speech.defaults,
                               .openAIOrigin = QUrl("http://127.0.0.1:9"),
                               .ownKeyChanged = [] {}}};
};

} // namespace

class TestSettingsServers : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void test_data()
    {
        QTest::addColumn<QStringList>("serverArguments");
        QTest::addColumn<bool>("serverRunning");
        QTest::addColumn<TestState>("state");
        QTest::addColumn<QString>("result");

        QTest::newRow("works") << QStringList{"--pace", "0", "--openai-key", "sk-test-1234"} << true
                               << TestState::Works << "Works";
        QTest::newRow("refuses instructions")
            << QStringList{"--refuse-instructions", "--openai-key", "sk-test-1234"} << true
            << TestState::Failed << "API error (400): Unsupported parameter: 'instructions'.";
        QTest::newRow("no audio") << QStringList{"--no-audio", "--openai-key", "sk-test-1234"} << true
                                  << TestState::Failed << "The server sent no audio.";
        QTest::newRow("no server") << QStringList() << false << TestState::Failed
                                   << "Received invalid response from server";
    }
    void test()
    {
        QFETCH(QStringList, serverArguments);
        QFETCH(bool, serverRunning);

        DevServer server;
        QVERIFY2(server.start(serverArguments), qPrintable(server.errorString()));
        const QUrl origin = server.url();
        if (!serverRunning)
            server.stop();
        Rig rig;
        QVERIFY(rig.model.saveKey("sk-test-1234"));
        QVERIFY(rig.model.setServer(origin.toString()));
        rig.model.setModel("local-tts");

        rig.model.test();
        QCOMPARE(rig.model.testState(), TestState::Testing);
        QTRY_VERIFY(rig.model.testState() != TestState::Testing);
        QTEST(rig.model.testResult(), "result");
        QTEST(rig.model.testState(), "state");
        if (!serverRunning)
            return;
        const QList<QJsonObject> log = server.waitForRequests(1);
        QCOMPARE(log.size(), 1);
        QCOMPARE(log.first().value("path").toString(), "/v1/audio/speech");
        QCOMPARE(DevServer::header(log.first(), u"Authorization"), "Bearer sk-test-1234");
        QCOMPARE(DevServer::body(log.first()).value("model").toString(), "local-tts");
    }

    // A server chosen in the section takes the next narration, and the environment's origin wins over it.
    void narrationFollowsServer_data()
    {
        QTest::addColumn<bool>("fromEnvironment");
        QTest::newRow("chosen server") << false;
        QTest::newRow("environment wins") << true;
    }
    void narrationFollowsServer()
    {
        QFETCH(bool, fromEnvironment);
        DevServer first;
        DevServer second;
        QVERIFY2(first.start({"--pace", "0"}), qPrintable(first.errorString()));
        QVERIFY2(second.start({"--pace", "0"}), qPrintable(second.errorString()));

        Rig rig;
        rig.speech.originFromEnvironment = fromEnvironment;
        rig.speech.createManager(first.url());
        QVERIFY(rig.model.saveKey("sk-test-1234"));
        QVERIFY(rig.model.setServer(second.url().toString()));
        rig.speech.speech->speak("Hello there.");
        DevServer &expected = fromEnvironment ? first : second;
        QCOMPARE(expected.waitForRequests(1).size(), 1);
        QVERIFY((fromEnvironment ? second : first).requests().isEmpty());
    }

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

QTEST_GUILESS_MAIN(TestSettingsServers)
#include "tst_settingsservers.moc"
