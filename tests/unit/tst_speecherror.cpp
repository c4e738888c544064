// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/SpeechError.h"

#include <QTest>

// The errors that carry a detail: how the detail lands in the text and in the id the widget keys on; the
// reason phrases of statuses without a detail.
class TestSpeechError : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void detailedErrors()
    {
        const std::tuple<SpeechError, const char *, const char *> rows[] = {
            {SpeechError::makeAudioEngineFailure(u"Connection refused"_qs),
             "Audio engine failed: Connection refused", "audioEngineFailure-Connection refused"},
            {SpeechError::makeApiError(401, u"Unauthorized"_qs), "API error (401): Unauthorized",
             "apiError-401-Unauthorized"},
            {SpeechError::makeNetworkError(u"Host not found"_qs), "Network error: Host not found",
             "networkError-Host not found"},
            // One id whatever the balance, so that a changed figure does not show the error again.
            {SpeechError::makeInsufficientBalance(3),
             "Low balance (3 min remaining). Add more minutes to continue.", "insufficientBalance"},
            {SpeechError::makeInsufficientBalance(0),
             "Low balance (0 min remaining). Add more minutes to continue.", "insufficientBalance"}};
        for (const auto &[error, description, id] : rows) {
            QCOMPARE(error.description(), QString::fromLatin1(description));
            QCOMPARE(error.id(), QString::fromLatin1(id));
        }
        QCOMPARE((QStringList{httpReasonPhrase(429), httpReasonPhrase(499), httpReasonPhrase(599),
                              httpReasonPhrase(999)}),
                 (QStringList{"Too Many Requests", "Client Error", "Server Error", "Unknown Status"}));
    }
};

QTEST_APPLESS_MAIN(TestSpeechError)
#include "tst_speecherror.moc"
