// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/SpeechError.h"

#include <QHash>

QString SpeechError::description() const
{
    switch (m_kind) {
    case audioEngineFailure:
        return QStringLiteral("Audio engine failed: ") + m_message;
    case apiError:
        return QStringLiteral("API error (") + QString::number(m_number) + QStringLiteral("): ") + m_message;
    case networkError:
        return QStringLiteral("Network error: ") + m_message;
    case insufficientBalance:
        return QStringLiteral("Low balance (") + QString::number(m_number) +
               QStringLiteral(" min remaining). Add more minutes to continue.");
    case apiKeyMissing:
        return QStringLiteral("OpenAI API key is missing. Please add it in Settings.");
    case invalidResponse:
        return QStringLiteral("Received invalid response from server");
    case noTextSelected:
        return QStringLiteral("No text selected. Highlight text and try again.");
    case notSignedIn:
        return QStringLiteral("Please sign in to use narration.");
    case accessibilityPermissionMissing:
        return QStringLiteral("Accessibility access required");
    case unplayableAudio:
        return m_message;
    }
    Q_UNREACHABLE();
    return {};
}

QString SpeechError::id() const
{
    switch (m_kind) {
    case audioEngineFailure:
        return QStringLiteral("audioEngineFailure-") + m_message;
    case apiError:
        return QStringLiteral("apiError-") + QString::number(m_number) + u'-' + m_message;
    case networkError:
        return QStringLiteral("networkError-") + m_message;
    case insufficientBalance:
        return QStringLiteral("insufficientBalance");
    case apiKeyMissing:
        return QStringLiteral("apiKeyMissing");
    case invalidResponse:
        return QStringLiteral("invalidResponse");
    case noTextSelected:
        return QStringLiteral("noTextSelected");
    case notSignedIn:
        return QStringLiteral("notSignedIn");
    case accessibilityPermissionMissing:
        return QStringLiteral("accessibilityPermissionMissing");
    case unplayableAudio:
        return QStringLiteral("unplayableAudio-") + m_message;
    }
    Q_UNREACHABLE();
    return {};
}

SpeechError speechErrorForStatus(int status, int minutesRemaining, const QString &serverMessage)
{
    if (status == 402)
        return SpeechError::makeInsufficientBalance(minutesRemaining);
    return SpeechError::makeApiError(status,
                                     serverMessage.isEmpty() ? httpReasonPhrase(status) : serverMessage);
}

SpeechError speechErrorBeforeHead(const QString &certificateProblem)
{
    if (certificateProblem.isEmpty())
        return SpeechError::make(SpeechError::invalidResponse);
    return SpeechError::makeNetworkError(
        QStringLiteral("The server's certificate is not trusted (%1).").arg(certificateProblem));
}

QString httpReasonPhrase(int status)
{
    static const QHash<int, QString> phrases{
        {100, QStringLiteral("Continue")},
        {101, QStringLiteral("Switching Protocols")},
        {102, QStringLiteral("Processing")},
        {103, QStringLiteral("Early Hints")},
        {200, QStringLiteral("OK")},
        {201, QStringLiteral("Created")},
        {202, QStringLiteral("Accepted")},
        {203, QStringLiteral("Non-Authoritative Information")},
        {204, QStringLiteral("No Content")},
        {205, QStringLiteral("Reset Content")},
        {206, QStringLiteral("Partial Content")},
        {207, QStringLiteral("Multi-Status")},
        {208, QStringLiteral("Already Reported")},
        {226, QStringLiteral("IM Used")},
        {300, QStringLiteral("Multiple Choices")},
        {301, QStringLiteral("Moved Permanently")},
        {302, QStringLiteral("Found")},
        {303, QStringLiteral("See Other")},
        {304, QStringLiteral("Not Modified")},
        {305, QStringLiteral("Use Proxy")},
        {307, QStringLiteral("Temporary Redirect")},
        {308, QStringLiteral("Permanent Redirect")},
        {400, QStringLiteral("Bad Request")},
        {401, QStringLiteral("Unauthorized")},
        {402, QStringLiteral("Payment Required")},
        {403, QStringLiteral("Forbidden")},
        {404, QStringLiteral("Not Found")},
        {405, QStringLiteral("Method Not Allowed")},
        {406, QStringLiteral("Not Acceptable")},
        {407, QStringLiteral("Proxy Authentication Required")},
        {408, QStringLiteral("Request Timeout")},
        {409, QStringLiteral("Conflict")},
        {410, QStringLiteral("Gone")},
        {411, QStringLiteral("Length Required")},
        {412, QStringLiteral("Precondition Failed")},
        {413, QStringLiteral("Content Too Large")},
        {414, QStringLiteral("URI Too Long")},
        {415, QStringLiteral("Unsupported Media Type")},
        {416, QStringLiteral("Range Not Satisfiable")},
        {417, QStringLiteral("Expectation Failed")},
        {418, QStringLiteral("I'm a teapot")},
        {421, QStringLiteral("Misdirected Request")},
        {422, QStringLiteral("Unprocessable Content")},
        {423, QStringLiteral("Locked")},
        {424, QStringLiteral("Failed Dependency")},
        {425, QStringLiteral("Too Early")},
        {426, QStringLiteral("Upgrade Required")},
        {428, QStringLiteral("Precondition Required")},
        {429, QStringLiteral("Too Many Requests")},
        {431, QStringLiteral("Request Header Fields Too Large")},
        {451, QStringLiteral("Unavailable For Legal Reasons")},
        {500, QStringLiteral("Internal Server Error")},
        {501, QStringLiteral("Not Implemented")},
        {502, QStringLiteral("Bad Gateway")},
        {503, QStringLiteral("Service Unavailable")},
        {504, QStringLiteral("Gateway Timeout")},
        {505, QStringLiteral("HTTP Version Not Supported")},
        {506, QStringLiteral("Variant Also Negotiates")},
        {507, QStringLiteral("Insufficient Storage")},
        {508, QStringLiteral("Loop Detected")},
        {510, QStringLiteral("Not Extended")},
        {511, QStringLiteral("Network Authentication Required")},
    };
    if (const auto it = phrases.constFind(status); it != phrases.constEnd())
        return *it;
    switch (status / 100) {
    case 1:
        return QStringLiteral("Informational");
    case 2:
        return QStringLiteral("Success");
    case 3:
        return QStringLiteral("Redirection");
    case 4:
        return QStringLiteral("Client Error");
    case 5:
        return QStringLiteral("Server Error");
    default:
        return QStringLiteral("Unknown Status");
    }
}
