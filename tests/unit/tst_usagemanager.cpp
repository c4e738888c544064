// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/UserDefaults.h"
#include "records/UsageManager.h"

#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

// Readable failure messages for QCOMPARE on records.
char *toString(const UsageStats &s)
{
    return QTest::toString(
        QStringLiteral("{characters %1, narrations %2}").arg(s.characters).arg(s.narrations));
}

namespace {

// Times in the tables carry their UTC offset, so that each row says exactly which instant it means.
QDateTime at(const char *iso)
{
    const QDateTime d = QDateTime::fromString(QString::fromLatin1(iso), Qt::ISODate);
    if (!d.isValid())
        qFatal("bad test time %s", iso);
    return d;
}

const QStringList kAllKeys{UsageManager::allTimeKey, UsageManager::thisMonthKey, UsageManager::thisWeekKey,
                           UsageManager::weekStartKey, UsageManager::monthStartKey};

// One machine per test: its own defaults file, clock, time zone and locale.
struct Fixture
{
    QTemporaryDir dir;
    QString confPath = dir.filePath(QStringLiteral("Quillvox.conf"));
    std::unique_ptr<UserDefaults> defaults;
    QDateTime now;
    QTimeZone zone;
    QLocale locale;

    Fixture(const QByteArray &zoneId, const QString &localeName, const QDateTime &start)
        : now(start)
        , zone(zoneId)
        , locale(localeName)
    {
        if (!zone.isValid())
            qFatal("no time zone %s", zoneId.constData());
    }

    void storeRaw(const QString &key, const QVariant &value)
    {
        QSettings s(confPath, QSettings::IniFormat);
        s.setValue(key, value);
    }
    // The state a previous run left: three records and the two starts.
    void storeState(UsageStats all, UsageStats month, UsageStats week, const QDateTime &weekStart,
                    const QDateTime &monthStart)
    {
        UserDefaults d(confPath);
        d.setData(UsageManager::allTimeKey, all.toJson());
        d.setData(UsageManager::thisMonthKey, month.toJson());
        d.setData(UsageManager::thisWeekKey, week.toJson());
        d.setDate(UsageManager::weekStartKey, weekStart);
        d.setDate(UsageManager::monthStartKey, monthStart);
    }
    std::unique_ptr<UsageManager> open()
    {
        if (!defaults)
            defaults = std::make_unique<UserDefaults>(confPath);
        return std::make_unique<UsageManager>(
            *defaults, [this] { return now; }, zone, locale);
    }
    UsageStats stored(const QString &key) const
    {
        const auto bytes = defaults->data(key);
        return bytes ? UsageStats::fromJson(*bytes).value_or(UsageStats{-1, -1}) : UsageStats{-1, -1};
    }
};

} // namespace

class TestUsageManager : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Nothing stored: the periods start at midnight on the locale's first day of the week (Sunday here)
    // and on the first of the month, and nothing is written until a narration is recorded.
    void firstStart()
    {
        const QDateTime weekStart = at("2024-05-12T00:00:00-04:00"),
                        monthStart = at("2024-05-01T00:00:00-04:00");
        Fixture f("America/New_York", QStringLiteral("en_US"), at("2024-05-15T14:00:00-04:00"));

        auto usage = f.open();
        for (const UsagePeriod p : allUsagePeriods())
            QCOMPARE(usage->stats(p), UsageStats{});
        QCOMPARE(usage->weekStart(), weekStart);
        QCOMPARE(usage->monthStart(), monthStart);
        for (const QString &key : kAllKeys)
            QVERIFY2(!f.defaults->contains(key), qPrintable(key));

        QSignalSpy allChanged(usage.get(), &UsageManager::allTimeChanged);
        QSignalSpy monthChanged(usage.get(), &UsageManager::thisMonthChanged);
        QSignalSpy weekChanged(usage.get(), &UsageManager::thisWeekChanged);
        usage->recordNarration(12);

        const UsageStats one{12, 1};
        for (const UsagePeriod p : allUsagePeriods())
            QCOMPARE(usage->stats(p), one);
        QCOMPARE((QList<qsizetype>{allChanged.count(), monthChanged.count(), weekChanged.count()}),
                 (QList<qsizetype>{1, 1, 1}));
        QCOMPARE(*f.defaults->data(UsageManager::allTimeKey),
                 QByteArray(R"({"characters":12,"narrations":1})"));
        QCOMPARE(f.stored(UsageManager::thisMonthKey), one);
        QCOMPARE(f.stored(UsageManager::thisWeekKey), one);
        QCOMPARE(f.defaults->date(UsageManager::weekStartKey), weekStart);
        QCOMPARE(f.defaults->date(UsageManager::monthStartKey), monthStart);
    }

    // A period that has ended loads as zeros. The rollover is not written at load (a restart redoes it);
    // the next narration stores it.
    void rolloverAtLoad_data()
    {
        QTest::addColumn<QByteArray>("zone");
        QTest::addColumn<QString>("locale");
        QTest::addColumn<QDateTime>("now");
        QTest::addColumn<QDateTime>("storedWeekStart");
        QTest::addColumn<QDateTime>("storedMonthStart");
        QTest::addColumn<QDateTime>("weekStart");
        QTest::addColumn<QDateTime>("monthStart");

        const auto row = [](const char *name, const char *zone, const char *locale, const char *now,
                            const char *storedWeek, const char *storedMonth, const char *week,
                            const char *month) {
            QTest::newRow(name) << QByteArray(zone) << QString::fromLatin1(locale) << at(now)
                                << at(storedWeek) << at(storedMonth) << at(week) << at(month);
        };
        // The same instant is already March in Tokyo and still February in Los Angeles. The week of
        // Monday February 26th runs into March.
        row("Tokyo, March 1st", "Asia/Tokyo", "en_GB", "2024-03-01T03:00:00Z", "2024-02-26T00:00:00+09:00",
            "2024-02-01T00:00:00+09:00", "2024-02-26T00:00:00+09:00", "2024-03-01T00:00:00+09:00");
        row("Los Angeles, still February 29th", "America/Los_Angeles", "en_GB", "2024-03-01T03:00:00Z",
            "2024-02-26T00:00:00-08:00", "2024-02-01T00:00:00-08:00", "2024-02-26T00:00:00-08:00",
            "2024-02-01T00:00:00-08:00");
        row("Berlin, first minute of March", "Europe/Berlin", "en_GB", "2024-03-01T00:00:30+01:00",
            "2024-02-26T00:00:00+01:00", "2024-02-01T00:00:00+01:00", "2024-02-26T00:00:00+01:00",
            "2024-03-01T00:00:00+01:00");
        // Wednesday May 15th in Berlin, with May's record: only the stored week start varies.
        const auto may = [&](const char *name, const char *storedWeek, const char *week) {
            row(name, "Europe/Berlin", "en_GB", "2024-05-15T09:00:00+02:00", storedWeek,
                "2024-05-01T00:00:00+02:00", week, "2024-05-01T00:00:00+02:00");
        };
        may("Monday weeks: last week", "2024-05-06T00:00:00+02:00", "2024-05-13T00:00:00+02:00");
        may("Monday weeks: stored start a day early", "2024-05-12T00:00:00+02:00",
            "2024-05-13T00:00:00+02:00");
        // The comparison is by calendar day, not by instant.
        may("same day, later hour", "2024-05-13T18:00:00+02:00", "2024-05-13T18:00:00+02:00");
        may("this week's start, stored in UTC", "2024-05-12T22:00:00Z", "2024-05-13T00:00:00+02:00");
    }

    void rolloverAtLoad()
    {
        QFETCH(QByteArray, zone);
        QFETCH(QString, locale);
        QFETCH(QDateTime, now);
        QFETCH(QDateTime, storedWeekStart);
        QFETCH(QDateTime, storedMonthStart);
        QFETCH(QDateTime, weekStart);
        QFETCH(QDateTime, monthStart);
        Fixture f(zone, locale, now);
        const UsageStats all{5000, 50}, month{900, 9}, week{100, 2};
        f.storeState(all, month, week, storedWeekStart, storedMonthStart);
        const UsageStats loadedMonth = monthStart == storedMonthStart ? month : UsageStats{};
        const UsageStats loadedWeek = weekStart == storedWeekStart ? week : UsageStats{};

        for (int run = 0; run < 2; ++run) {
            auto usage = f.open();
            QCOMPARE(usage->allTime(), all);
            QCOMPARE(usage->thisMonth(), loadedMonth);
            QCOMPARE(usage->thisWeek(), loadedWeek);
            QCOMPARE(usage->weekStart(), weekStart);
            QCOMPARE(usage->monthStart(), monthStart);
            QCOMPARE(f.stored(UsageManager::thisMonthKey), month);
            QCOMPARE(f.stored(UsageManager::thisWeekKey), week);
            QCOMPARE(f.defaults->date(UsageManager::weekStartKey), storedWeekStart);
            QCOMPARE(f.defaults->date(UsageManager::monthStartKey), storedMonthStart);
        }

        f.open()->recordNarration(40);
        QCOMPARE(f.stored(UsageManager::allTimeKey), (UsageStats{5040, 51}));
        QCOMPARE(f.stored(UsageManager::thisMonthKey),
                 (UsageStats{loadedMonth.characters + 40, loadedMonth.narrations + 1}));
        QCOMPARE(f.stored(UsageManager::thisWeekKey),
                 (UsageStats{loadedWeek.characters + 40, loadedWeek.narrations + 1}));
        QCOMPARE(f.defaults->date(UsageManager::weekStartKey), weekStart);
        QCOMPARE(f.defaults->date(UsageManager::monthStartKey), monthStart);
    }

    void weekBoundaries_data()
    {
        QTest::addColumn<QByteArray>("zone");
        QTest::addColumn<QString>("locale");
        QTest::addColumn<QDateTime>("first");
        QTest::addColumn<QDateTime>("second");
        QTest::addColumn<bool>("sameWeek");
        QTest::addColumn<QDateTime>("secondWeekStart");

        const auto row = [](const char *name, const char *zone, const char *locale, const char *first,
                            const char *second, bool sameWeek, const char *secondWeekStart) {
            QTest::newRow(name) << QByteArray(zone) << QString::fromLatin1(locale) << at(first) << at(second)
                                << sameWeek << at(secondWeekStart);
        };
        row("Monday weeks: Sunday evening, Monday morning", "Europe/London", "en_GB",
            "2024-06-09T21:00:00+01:00", "2024-06-10T08:00:00+01:00", false, "2024-06-10T00:00:00+01:00");
        row("Sunday weeks: Saturday evening, Sunday morning", "America/Chicago", "en_US",
            "2024-06-08T21:00:00-05:00", "2024-06-09T08:00:00-05:00", false, "2024-06-09T00:00:00-05:00");
        row("Sunday weeks: Sunday evening, Monday morning", "America/Chicago", "en_US",
            "2024-06-09T21:00:00-05:00", "2024-06-10T08:00:00-05:00", true, "2024-06-09T00:00:00-05:00");
        row("Saturday weeks: Friday, Saturday", "Africa/Cairo", "ar_EG", "2024-12-13T21:00:00+02:00",
            "2024-12-14T08:00:00+02:00", false, "2024-12-14T00:00:00+02:00");
        // Daylight-saving changes: a week or a day is not a fixed number of hours.
        row("Berlin spring forward inside a Monday week", "Europe/Berlin", "de_DE",
            "2024-03-25T09:00:00+01:00", "2024-03-31T12:00:00+02:00", true, "2024-03-25T00:00:00+01:00");
        row("New York, spring forward on the first day of the week", "America/New_York", "en_US",
            "2024-03-09T23:30:00-05:00", "2024-03-10T03:30:00-04:00", false, "2024-03-10T00:00:00-05:00");
        row("New York, fall back: Sunday 00:30 to Saturday night", "America/New_York", "en_US",
            "2024-11-03T00:30:00-04:00", "2024-11-09T23:59:00-05:00", true, "2024-11-03T00:00:00-04:00");
        row("New York, fall back: Saturday night, then 25 hours later", "America/New_York", "en_US",
            "2024-11-02T23:30:00-04:00", "2024-11-03T23:30:00-05:00", false, "2024-11-03T00:00:00-04:00");
        // Chile skips midnight itself: the week begins at 01:00.
        row("Santiago, no midnight on the first day of the week", "America/Santiago", "en_US",
            "2024-09-07T23:30:00-04:00", "2024-09-08T01:30:00-03:00", false, "2024-09-08T01:00:00-03:00");
    }

    void weekBoundaries()
    {
        QFETCH(QByteArray, zone);
        QFETCH(QString, locale);
        QFETCH(QDateTime, first);
        QFETCH(QDateTime, second);
        QFETCH(bool, sameWeek);
        QFETCH(QDateTime, secondWeekStart);
        Fixture f(zone, locale, first);

        auto usage = f.open();
        usage->recordNarration(10);
        f.now = second;
        QSignalSpy weekChanged(usage.get(), &UsageManager::thisWeekChanged);
        usage->recordNarration(20);

        QCOMPARE(usage->thisWeek(), (sameWeek ? UsageStats{30, 2} : UsageStats{20, 1}));
        QCOMPARE(usage->allTime(), (UsageStats{30, 2}));
        QCOMPARE(usage->weekStart(), secondWeekStart);
        QCOMPARE(f.defaults->date(UsageManager::weekStartKey), secondWeekStart);
        QVERIFY(weekChanged.count() >= 1);

        // A restart in the same week keeps the count.
        auto restarted = f.open();
        QCOMPARE(restarted->thisWeek(), usage->thisWeek());
    }

    // Counted by the platform's grapheme rules: an emoji with its skin tone and a letter with two marks are
    // one each.
    void characterCount()
    {
        QCOMPARE(UsageManager::characterCount(QStringLiteral("Hi 👋🏽, Zoë\u0308!")), qint64(10));
    }

    // A stored value that does not read as what it should be loads as the default; the other values load
    // as stored.
    void corruptValuesLoadAsDefaults_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<UsageStats>("loaded"); // that record as loaded (unused for the dates)

        const auto row = [](const char *name, const QString &key, const QVariant &value,
                            UsageStats loaded = {}) { QTest::newRow(name) << key << value << loaded; };
        const auto bytes = [](const char *s) { return QVariant(QByteArray(s)); };
        const QString a = UsageManager::allTimeKey, m = UsageManager::thisMonthKey,
                      w = UsageManager::thisWeekKey;
        row("truncated JSON", a, bytes(R"({"characters":12)"));
        row("count as text", a, bytes(R"({"characters":"12","narrations":1})"));
        row("fractional count", m, bytes(R"({"characters":1.5,"narrations":1})"));
        row("one past the 64-bit range", m, bytes(R"({"characters":9223372036854775808,"narrations":1})"));
        row("missing member", w, bytes(R"({"characters":12})"));
        row("valid JSON stored as text", w, QStringLiteral(R"({"characters":12,"narrations":1})"));
        // Stale dates stored as text: were they read as dates, both periods would roll over.
        row("week start as ISO text", UsageManager::weekStartKey, QStringLiteral("2020-01-06T00:00:00Z"));
        row("month start as ISO text", UsageManager::monthStartKey, QStringLiteral("2020-01-01T00:00:00Z"));
        row("month start as a number", UsageManager::monthStartKey, 1577836800);
        // Not corrupt: unknown members are ignored, and the whole 64-bit range is a count.
        row("extra member", a, bytes(R"({"characters":12,"narrations":1,"words":3})"), {12, 1});
        row("largest count", a, bytes(R"({"characters":9223372036854775807,"narrations":0})"),
            {9223372036854775807, 0});
    }

    void corruptValuesLoadAsDefaults()
    {
        QFETCH(QString, key);
        QFETCH(QVariant, value);
        QFETCH(UsageStats, loaded);
        const QTimeZone tz("Europe/Paris");
        Fixture f("Europe/Paris", QStringLiteral("fr_FR"), at("2024-05-15T09:00:00+02:00"));
        f.storeState({900, 9}, {600, 6}, {300, 3}, QDate(2024, 5, 13).startOfDay(tz),
                     QDate(2024, 5, 1).startOfDay(tz));
        f.storeRaw(key, value);
        QHash<QString, UsageStats> expected{{UsageManager::allTimeKey, {900, 9}},
                                            {UsageManager::thisMonthKey, {600, 6}},
                                            {UsageManager::thisWeekKey, {300, 3}}};
        if (expected.contains(key))
            expected[key] = loaded;

        // Through stats(), which each picker period reads.
        auto usage = f.open();
        QCOMPARE(usage->stats(UsagePeriod::allTime), expected[UsageManager::allTimeKey]);
        QCOMPARE(usage->stats(UsagePeriod::thisMonth), expected[UsageManager::thisMonthKey]);
        QCOMPARE(usage->stats(UsagePeriod::thisWeek), expected[UsageManager::thisWeekKey]);
        QCOMPARE(usage->weekStart(), QDate(2024, 5, 13).startOfDay(tz));
        QCOMPARE(usage->monthStart(), QDate(2024, 5, 1).startOfDay(tz));
    }
};

QTEST_GUILESS_MAIN(TestUsageManager)
#include "tst_usagemanager.moc"
