// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/SpeechError.h"

#include <QTest>

// The errors that carry a detail: how the detail lands in the text and in the id the widget keys on.
class TestSpeechError : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void detailedErrors_data()
    {
        QTest::addColumn<int>("index");
        QTest::addColumn<QString>("description");
        QTest::addColumn<QString>("id");

        QTest::newRow("audio") << 0 << "Audio engine failed: Connection refused"
                               << "audioEngineFailure-Connection refused";
        QTest::newRow("api") << 1 << "API error (401): Unauthorized"
                             << "apiError-401-Unauthorized";
        QTest::newRow("network") << 2 << "Network error: Host not found"
                                 << "networkError-Host not found";
        // One id whatever the balance, so that a changed figure does not show the error again.
        QTest::newRow("balance 3") << 3 << "Low balance (3 min remaining). Add more minutes to continue."
                                   << "insufficientBalance";
        QTest::newRow("balance 0") << 4 << "Low balance (0 min remaining). Add more minutes to continue."
                                   << "insufficientBalance";
    }

    void detailedErrors()
    {
        QFETCH(int, index);
        const SpeechError error = detailed().at(index);
        QFETCH(QString, description);
        QFETCH(QString, id);
        QCOMPARE(error.description(), description);
        QCOMPARE(error.id(), id);
    }

    void reasonPhrases_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("phrase");

        QTest::newRow("429") << 429 << "Too Many Requests";
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
    static QList<SpeechError> detailed()
    {
        return {SpeechError::makeAudioEngineFailure(QStringLiteral("Connection refused")),
                SpeechError::makeApiError(401, QStringLiteral("Unauthorized")),
                SpeechError::makeNetworkError(QStringLiteral("Host not found")),
                SpeechError::makeInsufficientBalance(3), SpeechError::makeInsufficientBalance(0)};
    }
};

QTEST_APPLESS_MAIN(TestSpeechError)
#include "tst_speecherror.moc"
