// SPDX-License-Identifier: GPL-3.0-or-later
#include "records/UsageManager.h"

#include "core/UserDefaults.h"

#include <QtNumeric>

namespace {

qint64 checkedAdd(qint64 a, qint64 b)
{
    qint64 sum = 0;
    // A count past 2^63 cannot come from real use; carrying on would only store garbage.
    if (qAddOverflow(a, b, &sum))
        qFatal("Usage count overflow");
    return sum;
}

void count(UsageStats &stats, qint64 characters)
{
    stats.characters = checkedAdd(stats.characters, characters);
    stats.narrations = checkedAdd(stats.narrations, 1);
}

UsageStats readStats(const UserDefaults &defaults, const QString &key)
{
    if (const auto data = defaults.data(key)) {
        if (const auto stats = UsageStats::fromJson(*data))
            return *stats;
    }
    return {};
}

} // namespace

UsageManager::UsageManager(UserDefaults &defaults, Clock clock, QTimeZone timeZone, QLocale locale,
                           QObject *parent)
    : QObject(parent)
    , m_defaults(defaults)
    , m_clock(std::move(clock))
    , m_timeZone(std::move(timeZone))
    , m_locale(std::move(locale))
{
    const QDateTime start = now();
    m_weekStart = start;
    m_monthStart = start;

    _allTime = readStats(m_defaults, allTimeKey);
    _thisMonth = readStats(m_defaults, thisMonthKey);
    _thisWeek = readStats(m_defaults, thisWeekKey);

    m_weekStart = m_defaults.date(weekStartKey).value_or(currentWeekStart(start));
    m_monthStart = m_defaults.date(monthStartKey).value_or(currentMonthStart(start));

    checkPeriodRollover();
}

UsageManager::~UsageManager() = default;

UsageManager &UsageManager::shared()
{
    static UsageManager instance(UserDefaults::standard());
    return instance;
}

UsageStats UsageManager::stats(UsagePeriod period) const
{
    switch (period) {
    case UsagePeriod::thisWeek:
        return _thisWeek;
    case UsagePeriod::thisMonth:
        return _thisMonth;
    case UsagePeriod::allTime:
        return _allTime;
    }
    return {};
}

QDateTime UsageManager::currentWeekStart(const QDateTime &date) const
{
    const QDate day = date.toTimeZone(m_timeZone).date();
    if (!day.isValid())
        return date;
    const int daysIntoWeek = (day.dayOfWeek() - int(m_locale.firstDayOfWeek()) + 7) % 7;
    // startOfDay, not QDateTime(day, 00:00): where a change to daylight-saving time skips midnight,
    // the day begins at the end of the gap.
    const QDateTime start = day.addDays(-daysIntoWeek).startOfDay(m_timeZone);
    return start.isValid() ? start : date;
}

QDateTime UsageManager::currentMonthStart(const QDateTime &date) const
{
    const QDate day = date.toTimeZone(m_timeZone).date();
    if (!day.isValid())
        return date;
    const QDateTime start = QDate(day.year(), day.month(), 1).startOfDay(m_timeZone);
    return start.isValid() ? start : date;
}

void UsageManager::recordNarration(qint64 characters)
{
    checkPeriodRollover();
    count(_allTime, characters);
    count(_thisMonth, characters);
    count(_thisWeek, characters);
    save();
    Q_EMIT allTimeChanged();
    Q_EMIT thisMonthChanged();
    Q_EMIT thisWeekChanged();
}

void UsageManager::checkPeriodRollover()
{
    const QDateTime current = now();

    const QDateTime week = currentWeekStart(current);
    if (!isSameDay(m_weekStart, week)) {
        const bool changed = _thisWeek != UsageStats{};
        _thisWeek = {};
        m_weekStart = week;
        if (changed)
            Q_EMIT thisWeekChanged();
    }

    const QDateTime month = currentMonthStart(current);
    if (!isSameDay(m_monthStart, month)) {
        const bool changed = _thisMonth != UsageStats{};
        _thisMonth = {};
        m_monthStart = month;
        if (changed)
            Q_EMIT thisMonthChanged();
    }
}

void UsageManager::save()
{
    m_defaults.setData(allTimeKey, _allTime.toJson());
    m_defaults.setData(thisMonthKey, _thisMonth.toJson());
    m_defaults.setData(thisWeekKey, _thisWeek.toJson());
    // In UTC: the instant is what counts, and the stored form should not depend on the zone of
    // the moment it was written in.
    m_defaults.setDate(weekStartKey, m_weekStart.toUTC());
    m_defaults.setDate(monthStartKey, m_monthStart.toUTC());
}

bool UsageManager::isSameDay(const QDateTime &a, const QDateTime &b) const
{
    return a.toTimeZone(m_timeZone).date() == b.toTimeZone(m_timeZone).date();
}

QDateTime UsageManager::now() const
{
    return m_clock ? m_clock() : QDateTime::currentDateTime();
}
