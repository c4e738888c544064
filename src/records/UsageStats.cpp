// SPDX-License-Identifier: GPL-3.0-or-later
#include "records/UsageStats.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>

namespace {

const QString kCharacters = QStringLiteral("characters");
const QString kNarrations = QStringLiteral("narrations");

// A JSON number that is a whole value within qint64. QJsonValue answers its default for anything
// else, so two different defaults tell a real value from a fallback.
std::optional<qint64> exactInteger(const QJsonValue &v)
{
    if (!v.isDouble())
        return std::nullopt;
    const qint64 a = v.toInteger(0);
    const qint64 b = v.toInteger(1);
    if (a != b)
        return std::nullopt;
    return a;
}

} // namespace

QByteArray UsageStats::toJson() const
{
    QJsonObject o;
    o.insert(kCharacters, characters);
    o.insert(kNarrations, narrations);
    return QJsonDocument(o).toJson(QJsonDocument::Compact);
}

std::optional<UsageStats> UsageStats::fromJson(const QByteArray &json)
{
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject())
        return std::nullopt;
    const QJsonObject o = doc.object();
    const auto characters = exactInteger(o.value(kCharacters));
    const auto narrations = exactInteger(o.value(kNarrations));
    if (!characters || !narrations)
        return std::nullopt;
    return UsageStats{*characters, *narrations};
}

const QList<UsagePeriod> &allUsagePeriods()
{
    static const QList<UsagePeriod> periods{UsagePeriod::thisWeek, UsagePeriod::thisMonth,
                                            UsagePeriod::allTime};
    return periods;
}

QString usagePeriodLabel(UsagePeriod period)
{
    switch (period) {
    case UsagePeriod::thisWeek:
        return QStringLiteral("This Week");
    case UsagePeriod::thisMonth:
        return QStringLiteral("This Month");
    case UsagePeriod::allTime:
        return QStringLiteral("All Time");
    }
    return {};
}
