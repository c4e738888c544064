// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/ServerCatalog.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

namespace ServerCatalog {

namespace {

QJsonArray listIn(const QByteArray &json, std::initializer_list<const char *> members)
{
    const QJsonDocument doc = QJsonDocument::fromJson(json);
    if (doc.isArray())
        return doc.array();
    for (const char *member : members) {
        const QJsonValue value = doc.object().value(QLatin1String(member));
        if (value.isArray())
            return value.toArray();
    }
    return {};
}

QStringList names(const QJsonArray &list, std::initializer_list<const char *> keys)
{
    QStringList out;
    for (const QJsonValue &item : list) {
        QString name = item.toString();
        for (const char *key : keys) {
            if (!name.isEmpty())
                break;
            name = item.toObject().value(QLatin1String(key)).toString();
        }
        name = name.trimmed();
        if (!name.isEmpty() && !out.contains(name))
            out << name;
    }
    return out;
}

} // namespace

QStringList voices(const QByteArray &json)
{
    return names(listIn(json, {"voices", "data"}), {"id", "voice_id", "name", "voice"});
}

QStringList models(const QByteArray &json)
{
    return names(listIn(json, {"data", "models"}), {"id", "model", "name"});
}

QString defaultModel(const QStringList &listed)
{
    // Servers list their other models too (speech recognition, chat); speech ones say so in their names.
    static const QRegularExpression speech(
        QStringLiteral(
            "tts|speech|kokoro|piper|orpheus|chatterbox|xtts|bark|parler|melo|kitten|dia\\b|f5|edge"),
        QRegularExpression::CaseInsensitiveOption);
    static const QRegularExpression dated(QStringLiteral("^gpt-.*-\\d{4}-\\d{2}-\\d{2}$"));
    for (const QString &model : listed) {
        if (speech.match(model).hasMatch() && !dated.match(model).hasMatch())
            return model;
    }
    return QStringLiteral("tts-1");
}

} // namespace ServerCatalog
