// SPDX-License-Identifier: GPL-3.0-or-later
#include "account/AccountHttp.h"

#include <QJsonDocument>
#include <QJsonParseError>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>

#include <cmath>
#include <limits>

namespace {

constexpr int kRequestTimeoutMs = 60'000;
// Account answers are a few hundred bytes; a hostile server gets no more memory than this.
constexpr qint64 kMaximumBodyBytes = 1 << 20;
constexpr char kTooLarge[] = "quillvoxTooLarge";

} // namespace

QByteArray bearer(const QString &token)
{
    return "Bearer " + token.toUtf8();
}

void sendAccountRequest(QNetworkAccessManager &network, const AccountRequest &request, const QObject *context,
                        std::function<void(const HttpAnswer &)> done)
{
    QNetworkRequest r(request.url);
    r.setTransferTimeout(kRequestTimeoutMs);
    r.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    r.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    r.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
    for (const auto &[name, value] : request.headers)
        r.setRawHeader(name, value);
    QNetworkReply *reply = network.sendCustomRequest(r, request.method, request.body);
    // Stops reading a body that grows past the limit instead of holding all of it.
    QObject::connect(reply, &QNetworkReply::downloadProgress, reply, [reply](qint64 received, qint64) {
        if (received > kMaximumBodyBytes) {
            reply->setProperty(kTooLarge, true);
            reply->abort();
        }
    });
    QObject::connect(reply, &QNetworkReply::finished, context, [reply, done = std::move(done)] {
        HttpAnswer answer;
        const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
        if (!reply->property(kTooLarge).toBool() && status.isValid() &&
            reply->error() != QNetworkReply::OperationCanceledError) {
            answer.status = status.toInt();
            answer.body = reply->read(kMaximumBodyBytes + 1);
        }
        if (reply->property(kTooLarge).toBool() || answer.body.size() > kMaximumBodyBytes) {
            answer.status.reset();
            answer.body.clear();
            answer.transportError = QStringLiteral("The server's answer is too large.");
        } else if (!answer.status) {
            answer.transportError = reply->errorString();
        }
        done(answer);
    });
    // A reply whose context died is still cleaned up.
    QObject::connect(reply, &QNetworkReply::finished, reply, &QObject::deleteLater);
}

AccountResult<QJsonObject> decodeObject(const QByteArray &body)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(body, &error);
    if (error.error != QJsonParseError::NoError)
        return DecodingError{
            QStringLiteral("The server's answer is not valid JSON (%1).").arg(error.errorString())};
    if (!document.isObject())
        return DecodingError{QStringLiteral("The server's answer is not a JSON object.")};
    return document.object();
}

std::optional<QString> stringMember(const QJsonObject &object, QLatin1StringView key)
{
    const QJsonValue value = object.value(key);
    if (!value.isString())
        return std::nullopt;
    return value.toString();
}

std::optional<qint64> integerMember(const QJsonObject &object, QLatin1StringView key)
{
    const QJsonValue value = object.value(key);
    if (!value.isDouble())
        return std::nullopt;
    // Whole numbers that fit 64 bits only: 1.5 or 1e300 are not counts of seconds.
    constexpr qint64 sentinel = std::numeric_limits<qint64>::min();
    const qint64 integer = value.toInteger(sentinel);
    if (integer == sentinel)
        return std::nullopt;
    return integer;
}

std::optional<double> numberMember(const QJsonObject &object, QLatin1StringView key)
{
    const QJsonValue value = object.value(key);
    if (!value.isDouble() || !std::isfinite(value.toDouble()))
        return std::nullopt;
    return value.toDouble();
}

DecodingError missingMember(QLatin1StringView key)
{
    return DecodingError{QStringLiteral("The server's answer has no valid \"%1\".").arg(key)};
}
