// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/SpeechError.h"

#include <QTest>

class TestSpeechError : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void texts_data()
    {
        QTest::addColumn<int>("index");
        QTest::addColumn<QString>("description");
        QTest::addColumn<QString>("id");

        const QList<SpeechError> errors = all();
        const QStringList descriptions{
            "Audio engine failed: Connection refused",
            "API error (401): Unauthorized",
            "Network error: Host not found",
            "Low balance (0 min remaining). Add more minutes to continue.",
            "OpenAI API key is missing. Please add it in Settings.",
            "Received invalid response from server",
            "No text selected. Highlight text and try again.",
            "Please sign in to use narration.",
            "Accessibility access required",
        };
        const QStringList ids{
            "audioEngineFailure-Connection refused",
            "apiError-401-Unauthorized",
            "networkError-Host not found",
            "insufficientBalance",
            "apiKeyMissing",
            "invalidResponse",
            "noTextSelected",
            "notSignedIn",
            "accessibilityPermissionMissing",
        };
        for (int i = 0; i < errors.size(); ++i)
            QTest::newRow(qPrintable(ids[i])) << i << descriptions[i] << ids[i];
    }

    void texts()
    {
        QFETCH(int, index);
        QFETCH(QString, description);
        QFETCH(QString, id);
        const SpeechError error = all().at(index);
        QCOMPARE(error.description(), description);
        QCOMPARE(error.id(), id);
    }

    void balanceErrorsShareTheirId()
    {
        const SpeechError a = SpeechError::makeInsufficientBalance(3);
        const SpeechError b = SpeechError::makeInsufficientBalance(7);
        QCOMPARE(a.id(), b.id());
        QVERIFY(a != b);
        QVERIFY(a.description().contains(QStringLiteral("(3 min remaining)")));
    }

    void reasonPhrases_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("phrase");

        QTest::newRow("400") << 400 << "Bad Request";
        QTest::newRow("401") << 401 << "Unauthorized";
        QTest::newRow("403") << 403 << "Forbidden";
        QTest::newRow("404") << 404 << "Not Found";
        QTest::newRow("429") << 429 << "Too Many Requests";
        QTest::newRow("500") << 500 << "Internal Server Error";
        QTest::newRow("503") << 503 << "Service Unavailable";
        QTest::newRow("unknown 4xx") << 499 << "Client Error";
        QTest::newRow("unknown 5xx") << 599 << "Server Error";
        QTest::newRow("nonsense") << 999 << "Unknown Status";
    }

    void reasonPhrases()
    {
        QFETCH(int, status);
        QFETCH(QString, phrase);
        QCOMPARE(httpReasonPhrase(status), phrase);
    }

private:
    static QList<SpeechError> all()
    {
        return {
            SpeechError::makeAudioEngineFailure(QStringLiteral("Connection refused")),
            SpeechError::makeApiError(401, QStringLiteral("Unauthorized")),
            SpeechError::makeNetworkError(QStringLiteral("Host not found")),
            SpeechError::makeInsufficientBalance(0),
            SpeechError::make(SpeechError::apiKeyMissing),
            SpeechError::make(SpeechError::invalidResponse),
            SpeechError::make(SpeechError::noTextSelected),
            SpeechError::make(SpeechError::notSignedIn),
            SpeechError::make(SpeechError::accessibilityPermissionMissing),
        };
    }
};

QTEST_APPLESS_MAIN(TestSpeechError)
#include "tst_speecherror.moc"
