// SPDX-License-Identifier: GPL-3.0-or-later
#include "JsonResponse.h"

#include <httplib.h>

#include <QJsonDocument>

namespace {

QJsonValue stringOrNull(std::string_view text)
{
    if (text.empty())
        return QJsonValue::Null;
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

} // namespace

void setJson(httplib::Response &response, int status, const QJsonObject &body)
{
    const QByteArray text = QJsonDocument(body).toJson(QJsonDocument::Compact);
    response.status = status;
    response.set_content(text.constData(), static_cast<std::size_t>(text.size()), jsonContentType);
}

void setJsonError(httplib::Response &response, int status, std::string_view message, std::string_view type,
                  std::string_view param, std::string_view code)
{
    const QJsonObject error{
        {"message", stringOrNull(message)},
        {"type", stringOrNull(type)},
        {"param", stringOrNull(param)},
        {"code", stringOrNull(code)},
    };
    setJson(response, status, QJsonObject{{"error", error}});
}

QJsonObject errorCode(std::string_view code, std::string_view description)
{
    QJsonObject body{{"error", stringOrNull(code)}};
    if (!description.empty())
        body.insert("error_description", stringOrNull(description));
    return body;
}

std::optional<QJsonObject> jsonObjectBody(std::string_view body)
{
    const QJsonDocument document =
        QJsonDocument::fromJson(QByteArray(body.data(), static_cast<qsizetype>(body.size())));
    if (!document.isObject())
        return std::nullopt;
    return document.object();
}
