// SPDX-License-Identifier: GPL-3.0-or-later
// The API Keys section against real speech servers on loopback: "Test" and the next narration go to
// the server the user chose, with the key from the keyring.
#include "SpeechFixture.h"

#include "settings/ApiKeySettingsModel.h"

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

class TestApiKeySettings : public QObject
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
};

QTEST_GUILESS_MAIN(TestApiKeySettings)
#include "tst_apikeysettings.moc"
