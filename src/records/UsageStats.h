// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QList>
#include <QMetaType>
#include <QString>

#include <optional>

// Local counts for one period of time.
struct UsageStats
{
    Q_GADGET
    Q_PROPERTY(qint64 characters MEMBER characters)
    Q_PROPERTY(qint64 narrations MEMBER narrations)

public:
    // User-perceived characters (grapheme clusters).
    qint64 characters = 0;
    qint64 narrations = 0;

    // {"characters":…,"narrations":…}
    QByteArray toJson() const;
    // Nothing unless the text is an object whose two members are whole numbers that fit 64 bits;
    // other members are ignored.
    static std::optional<UsageStats> fromJson(const QByteArray &json);

    friend bool operator==(const UsageStats &, const UsageStats &) = default;
};

// The periods of the usage picker, in picker order.
enum class UsagePeriod { thisWeek, thisMonth, allTime };

const QList<UsagePeriod> &allUsagePeriods();
// "This Week", "This Month", "All Time".
QString usagePeriodLabel(UsagePeriod period);
