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

        const auto row = [](const char *name, const QByteArray &body, const QString &message) {
            QTest::newRow(name) << body << message;
        };
        row("openai", R"({"error":{"message":"Voice 'marin' not found.","type":"x"}})",
            "Voice 'marin' not found.");
        row("error text", R"({"error":"Model is not installed locally."})",
            "Model is not installed locally.");
        row("detail text", R"({"detail":"Voice 'marin' not found. Available voices: af_heart"})",
            "Voice 'marin' not found. Available voices: af_heart");
        row("detail message", R"({"detail":{"error":"validation_error","message":"Input too long"}})",
            "Input too long");
        row("detail error message", R"({"detail":{"error":{"message":"Text exceeds 3000 characters"}}})",
            "Text exceeds 3000 characters");
        row("detail list",
            R"({"detail":[{"loc":["body","input"],"msg":"String should have at most 3000 characters"},{"msg":"Field required"}]})",
            "String should have at most 3000 characters; Field required");
        row("message", R"({"message":"  Synthesis\n failed  "})", "Synthesis failed");
        row("html", "<html><body><h1>502 Bad Gateway</h1></body></html>", {});
        row("empty", {}, {});
        row("no known member", R"({"status":"error"})", {});
        row("long", R"({"detail":")" + QByteArray(300, 'x') + R"("})", QString(199, u'x') + u'…');
        row("huge", R"({"detail":")" + QByteArray(70000, 'x') + R"("})", {});
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

    // The voices and models a list holds, and the model chosen from them when none is set.
    void lists_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QStringList>("voices");
        QTest::addColumn<QStringList>("models");
        QTest::addColumn<QString>("defaultModel");
        const auto row = [](const char *name, const QByteArray &json, const QStringList &voices,
                            const QStringList &models, const char *defaultModel = "tts-1") {
            QTest::newRow(name) << json << voices << models << QString::fromUtf8(defaultModel);
        };
        row("names", R"({"voices":["af_heart","am_adam","af_heart"]})", {"af_heart", "am_adam"}, {});
        row("objects", R"({"voices":[{"name":"tara","gender":"f"},{"id":"leo"}]})", {"tara", "leo"}, {});
        const QStringList listed{"whisper-1", "kokoro", "tts-1-hd"};
        row("openai list, first speech model",
            R"({"object":"list","data":[{"id":"whisper-1"},{"id":"kokoro"},{"id":"tts-1-hd"}]})", listed,
            listed, "kokoro");
        row("bare array", R"(["alloy",{"voice_id":"en-US-AvaNeural"}])", {"alloy", "en-US-AvaNeural"},
            {"alloy"});
        row("models member", R"({"models":[{"model":"piper"}]})", {}, {"piper"}, "piper");
        row("no speech model", R"({"data":[{"id":"whisper-1"},{"id":"llama3"}]})", {"whisper-1", "llama3"},
            {"whisper-1", "llama3"});
        row("dated name skipped", R"({"data":[{"id":"gpt-4o-mini-tts-2025-12-15"},{"id":"tts-1-hd"}]})",
            {"gpt-4o-mini-tts-2025-12-15", "tts-1-hd"}, {"gpt-4o-mini-tts-2025-12-15", "tts-1-hd"},
            "tts-1-hd");
        row("not json", "Not Found", {}, {});
    }

    void lists()
    {
        QFETCH(QByteArray, json);
        QFETCH(QStringList, models);
        QTEST(ServerCatalog::voices(json), "voices");
        QCOMPARE(ServerCatalog::models(json), models);
        QTEST(ServerCatalog::defaultModel(models), "defaultModel");
    }
};

QTEST_GUILESS_MAIN(TestServerAnswers)
#include "tst_serveranswers.moc"
