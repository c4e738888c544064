// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/ServerCatalog.h"
#include "speech/ServerErrorBody.h"

#include <QTest>

// What a chosen speech server says besides audio: its reasons for refusing, its voices and models.
class TestServerAnswers : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void errorMessages_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("message"); // null: none, the reason phrase stays

        QTest::newRow("openai") << QByteArray(
                                       R"({"error":{"message":"Voice 'marin' not found.","type":"x"}})")
                                << "Voice 'marin' not found.";
        QTest::newRow("error text") << QByteArray(R"({"error":"Model is not installed locally."})")
                                    << "Model is not installed locally.";
        QTest::newRow("detail text")
            << QByteArray(R"({"detail":"Voice 'marin' not found. Available voices: af_heart"})")
            << "Voice 'marin' not found. Available voices: af_heart";
        QTest::newRow("detail message")
            << QByteArray(R"({"detail":{"error":"validation_error","message":"Input too long"}})")
            << "Input too long";
        QTest::newRow("detail error message")
            << QByteArray(R"({"detail":{"error":{"message":"Text exceeds 3000 characters"}}})")
            << "Text exceeds 3000 characters";
        QTest::newRow("detail list")
            << QByteArray(
                   R"({"detail":[{"loc":["body","input"],"msg":"String should have at most 3000 characters"},{"msg":"Field required"}]})")
            << "String should have at most 3000 characters; Field required";
        QTest::newRow("message") << QByteArray(R"({"message":"  Synthesis\n failed  "})")
                                 << "Synthesis failed";
        QTest::newRow("html") << QByteArray("<html><body><h1>502 Bad Gateway</h1></body></html>")
                              << QString();
        QTest::newRow("empty") << QByteArray() << QString();
        QTest::newRow("no known member") << QByteArray(R"({"status":"error"})") << QString();
        QTest::newRow("long") << QByteArray(R"({"detail":")" + QByteArray(300, 'x') + R"("})")
                              << QString(199, u'x') + u'…';
        QTest::newRow("huge") << QByteArray(R"({"detail":")" + QByteArray(70000, 'x') + R"("})") << QString();
    }

    void errorMessages()
    {
        QFETCH(QByteArray, body);
        QFETCH(QString, message);
        QCOMPARE(ServerErrorBody::message(body).value_or(QString()), message);
    }

    void requestSize_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("message");
        QTest::addColumn<bool>("halves");

        QTest::newRow("413") << 413 << QString() << true;
        QTest::newRow("422 pydantic") << 422 << "String should have at most 3000 characters" << true;
        QTest::newRow("422 too long") << 422 << "Text too long, max 1000" << true;
        QTest::newRow("422 other") << 422 << "Field required" << false;
        QTest::newRow("400 length") << 400 << "Input too long" << false;
    }

    void requestSize()
    {
        QFETCH(int, status);
        QFETCH(QString, message);
        QFETCH(bool, halves);
        QCOMPARE(ServerErrorBody::refusesInputLength(status, message), halves);
        QCOMPARE(ServerErrorBody::halvedLimit(4096), 2048);
        QCOMPARE(ServerErrorBody::halvedLimit(300), ServerErrorBody::kMinInputChars);
    }

    void lists_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QStringList>("voices");
        QTest::addColumn<QStringList>("models");

        QTest::newRow("names") << QByteArray(R"({"voices":["af_heart","am_adam","af_heart"]})")
                               << QStringList{"af_heart", "am_adam"} << QStringList();
        QTest::newRow("objects") << QByteArray(R"({"voices":[{"name":"tara","gender":"f"},{"id":"leo"}]})")
                                 << QStringList{"tara", "leo"} << QStringList();
        QTest::newRow("openai list")
            << QByteArray(
                   R"({"object":"list","data":[{"id":"whisper-1"},{"id":"kokoro"},{"id":"tts-1-hd"}]})")
            << QStringList{"whisper-1", "kokoro", "tts-1-hd"}
            << QStringList{"whisper-1", "kokoro", "tts-1-hd"};
        QTest::newRow("bare array") << QByteArray(R"(["alloy",{"voice_id":"en-US-AvaNeural"}])")
                                    << QStringList{"alloy", "en-US-AvaNeural"} << QStringList{"alloy"};
        QTest::newRow("models member")
            << QByteArray(R"({"models":[{"model":"piper"}]})") << QStringList() << QStringList{"piper"};
        QTest::newRow("not json") << QByteArray("Not Found") << QStringList() << QStringList();
    }

    void lists()
    {
        QFETCH(QByteArray, json);
        QFETCH(QStringList, voices);
        QFETCH(QStringList, models);
        QCOMPARE(ServerCatalog::voices(json), voices);
        QCOMPARE(ServerCatalog::models(json), models);
    }

    void defaultModel_data()
    {
        QTest::addColumn<QStringList>("listed");
        QTest::addColumn<QString>("model");

        QTest::newRow("first speech model") << QStringList{"whisper-1", "kokoro", "tts-1"} << "kokoro";
        QTest::newRow("none listed") << QStringList() << "tts-1";
        QTest::newRow("no speech model") << QStringList{"whisper-1", "llama3"} << "tts-1";
        QTest::newRow("dated name skipped")
            << QStringList{"gpt-4o-mini-tts-2025-12-15", "tts-1-hd"} << "tts-1-hd";
    }

    void defaultModel()
    {
        QFETCH(QStringList, listed);
        QFETCH(QString, model);
        QCOMPARE(ServerCatalog::defaultModel(listed), model);
    }
};

QTEST_GUILESS_MAIN(TestServerAnswers)
#include "tst_serveranswers.moc"
