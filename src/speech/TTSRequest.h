// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QNetworkRequest>
#include <QString>
#include <QUrl>

#include <optional>

// The request body of both speech backends.
struct TTSRequest
{
    QString model;
    QString input;
    QString voice;
    QString response_format = QStringLiteral("pcm");
    std::optional<QString> instructions;

    QByteArray toJson() const;
    // Nothing when the JSON is not an object with string members model, input, voice and response_format.
    static std::optional<TTSRequest> fromJson(const QByteArray &json);

    friend bool operator==(const TTSRequest &, const TTSRequest &) = default;
};

enum class SpeechBackend { Service, OpenAI };

// The model each backend is asked for.
QString speechModel(SpeechBackend backend);

// How long a speech request waits for its response head.
inline constexpr int kSpeechHeadTimeoutMs = 60000;

// POST to the backend's speech path with "Authorization: Bearer <credential>" and a JSON body; 60 s.
// An empty credential (a chosen server on the local network that needs no key) sends no Authorization.
QNetworkRequest buildSpeechRequest(SpeechBackend backend, const QUrl &origin, const QString &credential,
                                   int timeoutMs = kSpeechHeadTimeoutMs);
