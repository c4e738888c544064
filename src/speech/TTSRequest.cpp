// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/TTSRequest.h"

#include <QJsonDocument>
#include <QJsonObject>

QByteArray TTSRequest::toJson() const
{
    QJsonObject o{
        {QStringLiteral("model"), model},
        {QStringLiteral("input"), input},
        {QStringLiteral("voice"), voice},
        {QStringLiteral("response_format"), response_format},
    };
    if (instructions)
        o.insert(QStringLiteral("instructions"), *instructions);
    return QJsonDocument(o).toJson(QJsonDocument::Compact);
}

std::optional<TTSRequest> TTSRequest::fromJson(const QByteArray &json)
{
    const QJsonDocument doc = QJsonDocument::fromJson(json);
    if (!doc.isObject())
        return std::nullopt;
    const QJsonObject o = doc.object();
    for (const char *member : {"model", "input", "voice", "response_format"}) {
        if (!o.value(QLatin1String(member)).isString())
            return std::nullopt;
    }
    TTSRequest r;
    r.model = o.value(QStringLiteral("model")).toString();
    r.input = o.value(QStringLiteral("input")).toString();
    r.voice = o.value(QStringLiteral("voice")).toString();
    r.response_format = o.value(QStringLiteral("response_format")).toString();
    const QJsonValue instructions = o.value(QStringLiteral("instructions"));
    if (instructions.isString())
        r.instructions = instructions.toString();
    else if (!instructions.isUndefined() && !instructions.isNull())
        return std::nullopt;
    return r;
}

QString speechModel(SpeechBackend backend)
{
    return backend == SpeechBackend::Service ? QStringLiteral("gpt-4o-mini-tts")
                                             : QStringLiteral("gpt-4o-mini-tts-2025-12-15");
}

QNetworkRequest buildSpeechRequest(SpeechBackend backend, const QUrl &origin, const QString &credential,
                                   int timeoutMs)
{
    QUrl url = origin;
    url.setPath(origin.path() + (backend == SpeechBackend::Service ? QStringLiteral("/api/tts/stream")
                                                                   : QStringLiteral("/v1/audio/speech")));
    QNetworkRequest request(url);
    if (!credential.isEmpty())
        request.setRawHeader("Authorization", "Bearer " + credential.toUtf8());
    request.setRawHeader("Content-Type", "application/json");
    request.setTransferTimeout(timeoutMs);
    return request;
}
