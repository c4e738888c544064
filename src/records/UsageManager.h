// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "records/UsageStats.h"

#include <QDateTime>
#include <QLocale>
#include <QObject>
#include <QString>
#include <QTimeZone>

#include <functional>

class UserDefaults;

// Counts completed narrations and their characters on this machine, for the current week, the
// current month and all time. Periods roll over lazily, when loading and when a narration is
// recorded; a rollover is stored only with the next recorded narration.
class UsageManager : public QObject
{
    Q_OBJECT
    Q_PROPERTY(UsageStats allTime READ allTime NOTIFY allTimeChanged)
    Q_PROPERTY(UsageStats thisMonth READ thisMonth NOTIFY thisMonthChanged)
    Q_PROPERTY(UsageStats thisWeek READ thisWeek NOTIFY thisWeekChanged)

public:
    using Clock = std::function<QDateTime()>;

    static inline const QString allTimeKey = QStringLiteral("usage_allTime");
    static inline const QString thisMonthKey = QStringLiteral("usage_thisMonth");
    static inline const QString thisWeekKey = QStringLiteral("usage_thisWeek");
    static inline const QString weekStartKey = QStringLiteral("usage_weekStart");
    static inline const QString monthStartKey = QStringLiteral("usage_monthStart");

    // Loads from `defaults` and rolls over stale periods (without writing). Weeks begin on the
    // locale's first day of the week; days are calendar days in `timeZone`. `clock` gives the
    // current time (the system's when empty).
    explicit UsageManager(UserDefaults &defaults, Clock clock = {},
                          QTimeZone timeZone = QTimeZone::systemTimeZone(),
                          QLocale locale = QLocale::system(), QObject *parent = nullptr);
    ~UsageManager() override;

    // The standard user defaults, the system time zone and the system locale.
    static UsageManager &shared();

    UsageStats allTime() const { return _allTime; }
    UsageStats thisMonth() const { return _thisMonth; }
    UsageStats thisWeek() const { return _thisWeek; }
    UsageStats stats(UsagePeriod period) const;

    // The starts of the periods that thisWeek and thisMonth count.
    QDateTime weekStart() const { return m_weekStart; }
    QDateTime monthStart() const { return m_monthStart; }

    // Midnight at the beginning of the first day of the week (month) that contains `date`, or the
    // first moment of that day when midnight does not exist there; `date` itself when the calendar
    // cannot answer.
    QDateTime currentWeekStart(const QDateTime &date) const;
    QDateTime currentMonthStart(const QDateTime &date) const;

    // Counts one completed narration of `characters` user-perceived characters.
    void recordNarration(qint64 characters);

Q_SIGNALS:
    void allTimeChanged();
    void thisMonthChanged();
    void thisWeekChanged();

private:
    void checkPeriodRollover();
    void save();
    bool isSameDay(const QDateTime &a, const QDateTime &b) const;
    QDateTime now() const;

    UsageStats _allTime;
    UsageStats _thisMonth;
    UsageStats _thisWeek;
    QDateTime m_weekStart;
    QDateTime m_monthStart;

    UserDefaults &m_defaults;
    Clock m_clock;
    QTimeZone m_timeZone;
    QLocale m_locale;
};
