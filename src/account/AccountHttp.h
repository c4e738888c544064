// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "account/AccountError.h"

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QPair>
#include <QUrl>

#include <functional>
#include <optional>

class QNetworkAccessManager;
class QObject;

// The answer to one account request: an HTTP status and body, or a transport failure.
struct HttpAnswer
{
    std::optional<int> status; // none: no HTTP answer at all
    QByteArray body;
    QString transportError;

    // The failure to report when there was no HTTP answer.
    TransportError transportFailure() const { return {transportError}; }
};

struct AccountRequest
{
    QByteArray method = "GET";
    QUrl url;
    QList<QPair<QByteArray, QByteArray>> headers; // sent in this order
    QByteArray body;
};

// An "Authorization" header value for `token`.
QByteArray bearer(const QString &token);

// Sends `request` with the account time-out (60 s) and calls `done` on the GUI thread unless `context`
// goes away first. Redirects are not followed: every account endpoint answers directly.
void sendAccountRequest(QNetworkAccessManager &network, const AccountRequest &request, const QObject *context,
                        std::function<void(const HttpAnswer &)> done);

// The body as a JSON object, or the decoding failure that says why not.
AccountResult<QJsonObject> decodeObject(const QByteArray &body);
// Required members: a string, a whole number that fits 64 bits, any number.
std::optional<QString> stringMember(const QJsonObject &object, QLatin1StringView key);
std::optional<qint64> integerMember(const QJsonObject &object, QLatin1StringView key);
std::optional<double> numberMember(const QJsonObject &object, QLatin1StringView key);
DecodingError missingMember(QLatin1StringView key);
