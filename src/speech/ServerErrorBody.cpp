// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/ServerErrorBody.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QStringList>

namespace ServerErrorBody {

namespace {

QString text(const QJsonValue &value)
{
    return value.isString() ? value.toString().simplified() : QString();
}

QString found(const QJsonObject &o)
{
    const QJsonValue error = o.value(u"error");
    if (const QString m = text(error.toObject().value(u"message")); !m.isEmpty())
        return m;
    if (const QString m = text(error); !m.isEmpty())
        return m;
    const QJsonValue detail = o.value(u"detail");
    if (const QString m = text(detail); !m.isEmpty())
        return m;
    if (const QString m = text(detail.toObject().value(u"message")); !m.isEmpty())
        return m;
    if (const QString m = text(detail.toObject().value(u"error").toObject().value(u"message")); !m.isEmpty())
        return m;
    if (detail.isArray()) {
        QStringList messages;
        for (const QJsonValue &item : detail.toArray()) {
            if (const QString m = text(item.toObject().value(u"msg")); !m.isEmpty())
                messages << m;
        }
        if (!messages.isEmpty())
            return messages.join(QStringLiteral("; "));
    }
    return text(o.value(u"message"));
}

} // namespace

std::optional<QString> message(const QByteArray &body)
{
    if (body.size() > kMaxBodyBytes)
        return std::nullopt;
    const QJsonDocument doc = QJsonDocument::fromJson(body);
    if (!doc.isObject())
        return std::nullopt;
    QString m = found(doc.object());
    if (m.isEmpty())
        return std::nullopt;
    if (m.size() > kMaxMessageChars) {
        m.truncate(kMaxMessageChars - 1);
        if (m.back().isHighSurrogate())
            m.chop(1);
        m.append(u'…');
    }
    return m;
}

bool refusesInputLength(int status, const QString &message)
{
    if (status == 413)
        return true;
    if (status != 422)
        return false;
    static const QRegularExpression length(
        QStringLiteral(
            "too long|length|at most \\d+ char|max(imum)?[ _]\\w*\\s*(char|len)|exceeds?|\\d+ char"),
        QRegularExpression::CaseInsensitiveOption);
    return length.match(message).hasMatch();
}

int halvedLimit(int current)
{
    return std::max(kMinInputChars, current / 2);
}

} // namespace ServerErrorBody
