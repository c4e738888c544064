// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

// The narration errors shown in the widget: one user-facing description per case, and an id that
// tells one shown error from the next.
class SpeechError
{
public:
    enum Kind {
        audioEngineFailure,
        apiError,
        networkError,
        insufficientBalance,
        apiKeyMissing,
        invalidResponse,
        noTextSelected,
        notSignedIn,
        accessibilityPermissionMissing,
        // A speech server the user chose answered 200 with nothing playable; the message says what.
        unplayableAudio,
    };

    static SpeechError makeAudioEngineFailure(const QString &message)
    {
        return {audioEngineFailure, 0, message};
    }
    static SpeechError makeApiError(int status, const QString &message)
    {
        return {apiError, status, message};
    }
    static SpeechError makeNetworkError(const QString &message) { return {networkError, 0, message}; }
    static SpeechError makeInsufficientBalance(int minutesRemaining)
    {
        return {insufficientBalance, minutesRemaining, {}};
    }
    static SpeechError makeUnplayableAudio(const QString &message) { return {unplayableAudio, 0, message}; }
    static SpeechError make(Kind kind) { return {kind, 0, {}}; }

    Kind kind() const { return m_kind; }
    QString description() const;
    QString id() const;

    friend bool operator==(const SpeechError &, const SpeechError &) = default;

private:
    SpeechError(Kind kind, int number, QString message)
        : m_kind(kind)
        , m_number(number)
        , m_message(std::move(message))
    {}

    Kind m_kind;
    int m_number; // status code or minutes remaining
    QString m_message;
};

// The standard reason phrase of an HTTP status code ("Unauthorized" for 401); unknown codes get a
// generic phrase for their class.
QString httpReasonPhrase(int status);

// What a narration shows for a response status other than 200: the server's own message when a chosen
// server gave one, else the status's reason phrase.
SpeechError speechErrorForStatus(int status, int minutesRemaining, const QString &serverMessage = {});

// What a narration shows when its request ended without a response head: that the server's certificate
// is not trusted when that was why (a chosen server only), else an invalid response.
SpeechError speechErrorBeforeHead(const QString &certificateProblem = {});
