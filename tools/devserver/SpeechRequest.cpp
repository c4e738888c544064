// SPDX-License-Identifier: GPL-3.0-or-later
#include "SpeechRequest.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>

std::variant<SpeechRequest, SpeechRequest::Invalid> SpeechRequest::parse(std::string_view body)
{
    QJsonParseError parseError;
    const QJsonDocument document =
        QJsonDocument::fromJson(QByteArray(body.data(), static_cast<qsizetype>(body.size())), &parseError);
    if (parseError.error != QJsonParseError::NoError)
        return Invalid{"The body is not valid JSON: " + parseError.errorString().toStdString(), {}};
    if (!document.isObject())
        return Invalid{"The body must be a JSON object.", {}};
    const QJsonObject object = document.object();

    SpeechRequest request;
    const std::pair<const char *, std::string *> required[] = {
        {"model", &request.model},
        {"input", &request.input},
        {"voice", &request.voice},
        {"response_format", &request.responseFormat},
    };
    for (const auto &[name, field] : required) {
        const QJsonValue value = object.value(QLatin1String(name));
        if (value.isUndefined())
            return Invalid{std::string("Missing required parameter: '") + name + "'.", name};
        if (!value.isString())
            return Invalid{std::string("'") + name + "' must be a string.", name};
        *field = value.toString().toStdString();
    }
    if (const QJsonValue instructions = object.value(QLatin1String("instructions"));
        !instructions.isUndefined()) {
        if (!instructions.isString())
            return Invalid{"'instructions' must be a string.", "instructions"};
        request.instructions = instructions.toString().toStdString();
    }
    if (request.input.empty())
        return Invalid{"'input' must not be empty.", "input"};
    if (request.responseFormat != "pcm") {
        return Invalid{"Unsupported response_format '" + request.responseFormat +
                           "': this server only streams pcm.",
                       "response_format"};
    }
    return request;
}
