// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/UserDefaults.h"
#include "records/UsageManager.h"

#include <QJsonDocument>
#include <QJsonObject>
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

QByteArray statsJson(qint64 characters, qint64 narrations)
{
    return QJsonDocument(QJsonObject{{QStringLiteral("characters"), characters},
                                     {QStringLiteral("narrations"), narrations}})
        .toJson(QJsonDocument::Compact);
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
    void firstStart_data()
    {
        QTest::addColumn<QByteArray>("zone");
        QTest::addColumn<QString>("locale");
        QTest::addColumn<QDateTime>("now");
        QTest::addColumn<QDateTime>("weekStart");
        QTest::addColumn<QDateTime>("monthStart");

        QTest::newRow("New York, weeks from Sunday")
            << QByteArray("America/New_York") << "en_US" << at("2024-05-15T14:00:00-04:00")
            << at("2024-05-12T00:00:00-04:00") << at("2024-05-01T00:00:00-04:00");
        QTest::newRow("Berlin, weeks from Monday")
            << QByteArray("Europe/Berlin") << "de_DE" << at("2024-05-15T14:00:00+02:00")
            << at("2024-05-13T00:00:00+02:00") << at("2024-05-01T00:00:00+02:00");
        QTest::newRow("Tokyo, first day of the month and week")
            << QByteArray("Asia/Tokyo") << "en_GB" << at("2024-07-01T00:00:00+09:00")
            << at("2024-07-01T00:00:00+09:00") << at("2024-07-01T00:00:00+09:00");
    }

    void firstStart()
    {
        QFETCH(QByteArray, zone);
        QFETCH(QString, locale);
        QFETCH(QDateTime, now);
        QFETCH(QDateTime, weekStart);
        QFETCH(QDateTime, monthStart);
        Fixture f(zone, locale, now);

        auto usage = f.open();
        QCOMPARE(usage->allTime(), UsageStats{});
        QCOMPARE(usage->thisMonth(), UsageStats{});
        QCOMPARE(usage->thisWeek(), UsageStats{});
        QCOMPARE(usage->weekStart(), weekStart);
        QCOMPARE(usage->monthStart(), monthStart);
        for (const QString &key : kAllKeys)
            QVERIFY2(!f.defaults->contains(key), qPrintable(key));

        QSignalSpy allChanged(usage.get(), &UsageManager::allTimeChanged);
        QSignalSpy monthChanged(usage.get(), &UsageManager::thisMonthChanged);
        QSignalSpy weekChanged(usage.get(), &UsageManager::thisWeekChanged);
        usage->recordNarration(12);

        const UsageStats one{12, 1};
        QCOMPARE(usage->allTime(), one);
        QCOMPARE(usage->thisMonth(), one);
        QCOMPARE(usage->thisWeek(), one);
        QCOMPARE(allChanged.count(), 1);
        QCOMPARE(monthChanged.count(), 1);
        QCOMPARE(weekChanged.count(), 1);
        QCOMPARE(*f.defaults->data(UsageManager::allTimeKey),
                 QByteArray(R"({"characters":12,"narrations":1})"));
        QCOMPARE(f.stored(UsageManager::thisMonthKey), one);
        QCOMPARE(f.stored(UsageManager::thisWeekKey), one);
        QCOMPARE(f.defaults->date(UsageManager::weekStartKey), weekStart);
        QCOMPARE(f.defaults->date(UsageManager::monthStartKey), monthStart);
    }

    void newMonthResetsOnlyTheMonth_data()
    {
        QTest::addColumn<QByteArray>("zone");
        QTest::addColumn<QDateTime>("now");
        QTest::addColumn<bool>("newMonth");

        // The same instant is already March in Tokyo and still February in Los Angeles.
        QTest::newRow("Tokyo, March 1st") << QByteArray("Asia/Tokyo") << at("2024-03-01T03:00:00Z") << true;
        QTest::newRow("Los Angeles, still February 29th")
            << QByteArray("America/Los_Angeles") << at("2024-03-01T03:00:00Z") << false;
        QTest::newRow("Berlin, first minute of March")
            << QByteArray("Europe/Berlin") << at("2024-03-01T00:00:30+01:00") << true;
        QTest::newRow("Berlin, last minute of February")
            << QByteArray("Europe/Berlin") << at("2024-02-29T23:59:30+01:00") << false;
    }

    void newMonthResetsOnlyTheMonth()
    {
        QFETCH(QByteArray, zone);
        QFETCH(QDateTime, now);
        QFETCH(bool, newMonth);
        Fixture f(zone, QStringLiteral("en_GB"), now);
        const QTimeZone tz(zone);
        // The week of Monday February 26th runs into March.
        const QDateTime weekStart = QDate(2024, 2, 26).startOfDay(tz);
        const QDateTime february = QDate(2024, 2, 1).startOfDay(tz);
        f.storeState({5000, 50}, {900, 9}, {100, 2}, weekStart, february);

        auto usage = f.open();
        QCOMPARE(usage->thisMonth(), (newMonth ? UsageStats{} : UsageStats{900, 9}));
        usage->recordNarration(40);

        QCOMPARE(usage->allTime(), (UsageStats{5040, 51}));
        QCOMPARE(usage->thisMonth(), (newMonth ? UsageStats{40, 1} : UsageStats{940, 10}));
        QCOMPARE(usage->thisWeek(), (UsageStats{140, 3}));
        QCOMPARE(f.defaults->date(UsageManager::monthStartKey),
                 newMonth ? QDate(2024, 3, 1).startOfDay(tz) : february);
        QCOMPARE(f.defaults->date(UsageManager::weekStartKey), weekStart);
    }

    void staleWeekLoadsAsZeros_data()
    {
        QTest::addColumn<QByteArray>("zone");
        QTest::addColumn<QString>("locale");
        QTest::addColumn<QDateTime>("now");
        QTest::addColumn<QDateTime>("storedWeekStart");
        QTest::addColumn<QDateTime>("expectedWeekStart");
        QTest::addColumn<bool>("reset");

        QTest::newRow("Monday weeks: last week")
            << QByteArray("Europe/Berlin") << "en_GB" << at("2024-05-15T09:00:00+02:00")
            << at("2024-05-06T00:00:00+02:00") << at("2024-05-13T00:00:00+02:00") << true;
        QTest::newRow("Sunday weeks: last week")
            << QByteArray("America/New_York") << "en_US" << at("2024-05-15T09:00:00-04:00")
            << at("2024-05-05T00:00:00-04:00") << at("2024-05-12T00:00:00-04:00") << true;
        QTest::newRow("Monday weeks: stored start a day early")
            << QByteArray("Europe/Berlin") << "en_GB" << at("2024-05-15T09:00:00+02:00")
            << at("2024-05-12T00:00:00+02:00") << at("2024-05-13T00:00:00+02:00") << true;
        // The comparison is by calendar day, not by instant.
        QTest::newRow("same day, later hour")
            << QByteArray("Europe/Berlin") << "en_GB" << at("2024-05-15T09:00:00+02:00")
            << at("2024-05-13T18:00:00+02:00") << at("2024-05-13T18:00:00+02:00") << false;
        QTest::newRow("this week's start, stored in UTC")
            << QByteArray("Europe/Berlin") << "en_GB" << at("2024-05-15T09:00:00+02:00")
            << at("2024-05-12T22:00:00Z") << at("2024-05-13T00:00:00+02:00") << false;
    }

    void staleWeekLoadsAsZeros()
    {
        QFETCH(QByteArray, zone);
        QFETCH(QString, locale);
        QFETCH(QDateTime, now);
        QFETCH(QDateTime, storedWeekStart);
        QFETCH(QDateTime, expectedWeekStart);
        QFETCH(bool, reset);
        Fixture f(zone, locale, now);
        const QDateTime may = QDate(2024, 5, 1).startOfDay(QTimeZone(zone));
        f.storeState({900, 6}, {800, 5}, {500, 3}, storedWeekStart, may);
        const QByteArray storedWeek = statsJson(500, 3);

        for (int run = 0; run < 2; ++run) {
            auto usage = f.open();
            QCOMPARE(usage->thisWeek(), (reset ? UsageStats{} : UsageStats{500, 3}));
            QCOMPARE(usage->thisMonth(), (UsageStats{800, 5}));
            QCOMPARE(usage->allTime(), (UsageStats{900, 6}));
            QCOMPARE(usage->weekStart(), expectedWeekStart);
            // The rollover is not written at load, and so is redone at the next start.
            QCOMPARE(*f.defaults->data(UsageManager::thisWeekKey), storedWeek);
            QCOMPARE(f.defaults->date(UsageManager::weekStartKey), storedWeekStart);
        }

        auto usage = f.open();
        usage->recordNarration(7);
        QCOMPARE(f.stored(UsageManager::thisWeekKey), (reset ? UsageStats{7, 1} : UsageStats{507, 4}));
        QCOMPARE(f.defaults->date(UsageManager::weekStartKey), expectedWeekStart);
    }

    void weekBoundaries_data()
    {
        QTest::addColumn<QByteArray>("zone");
        QTest::addColumn<QString>("locale");
        QTest::addColumn<QDateTime>("first");
        QTest::addColumn<QDateTime>("second");
        QTest::addColumn<bool>("sameWeek");
        QTest::addColumn<QDateTime>("secondWeekStart");

        QTest::newRow("Monday weeks: Sunday evening, Monday morning")
            << QByteArray("Europe/London") << "en_GB" << at("2024-06-09T21:00:00+01:00")
            << at("2024-06-10T08:00:00+01:00") << false << at("2024-06-10T00:00:00+01:00");
        QTest::newRow("Monday weeks: Saturday, Sunday")
            << QByteArray("Europe/London") << "en_GB" << at("2024-06-08T21:00:00+01:00")
            << at("2024-06-09T08:00:00+01:00") << true << at("2024-06-03T00:00:00+01:00");
        QTest::newRow("Sunday weeks: Saturday evening, Sunday morning")
            << QByteArray("America/Chicago") << "en_US" << at("2024-06-08T21:00:00-05:00")
            << at("2024-06-09T08:00:00-05:00") << false << at("2024-06-09T00:00:00-05:00");
        QTest::newRow("Sunday weeks: Sunday evening, Monday morning")
            << QByteArray("America/Chicago") << "en_US" << at("2024-06-09T21:00:00-05:00")
            << at("2024-06-10T08:00:00-05:00") << true << at("2024-06-09T00:00:00-05:00");
        QTest::newRow("Saturday weeks: Friday, Saturday")
            << QByteArray("Africa/Cairo") << "ar_EG" << at("2024-12-13T21:00:00+02:00")
            << at("2024-12-14T08:00:00+02:00") << false << at("2024-12-14T00:00:00+02:00");
        // Daylight-saving changes: a week or a day is not a fixed number of hours.
        QTest::newRow("Berlin spring forward inside a Monday week")
            << QByteArray("Europe/Berlin") << "de_DE" << at("2024-03-25T09:00:00+01:00")
            << at("2024-03-31T12:00:00+02:00") << true << at("2024-03-25T00:00:00+01:00");
        QTest::newRow("Berlin, Sunday after spring forward, then Monday")
            << QByteArray("Europe/Berlin") << "de_DE" << at("2024-03-31T23:30:00+02:00")
            << at("2024-04-01T00:30:00+02:00") << false << at("2024-04-01T00:00:00+02:00");
        QTest::newRow("New York, spring forward on the first day of the week")
            << QByteArray("America/New_York") << "en_US" << at("2024-03-09T23:30:00-05:00")
            << at("2024-03-10T03:30:00-04:00") << false << at("2024-03-10T00:00:00-05:00");
        QTest::newRow("New York, fall back: Sunday 00:30 to Saturday night")
            << QByteArray("America/New_York") << "en_US" << at("2024-11-03T00:30:00-04:00")
            << at("2024-11-09T23:59:00-05:00") << true << at("2024-11-03T00:00:00-04:00");
        QTest::newRow("New York, fall back: Saturday night, then 25 hours later")
            << QByteArray("America/New_York") << "en_US" << at("2024-11-02T23:30:00-04:00")
            << at("2024-11-03T23:30:00-05:00") << false << at("2024-11-03T00:00:00-04:00");
        // Chile skips midnight itself: the week begins at 01:00.
        QTest::newRow("Santiago, no midnight on the first day of the week")
            << QByteArray("America/Santiago") << "en_US" << at("2024-09-07T23:30:00-04:00")
            << at("2024-09-08T01:30:00-03:00") << false << at("2024-09-08T01:00:00-03:00");
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

    void characterCount_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<qint64>("expected");

        QTest::newRow("empty") << QString() << qint64(0);
        QTest::newRow("family emoji, seven code points")
            << QStringLiteral("👨‍👩‍👧‍👦") << qint64(1);
        QTest::newRow("e with combining acute") << QStringLiteral("e\u0301") << qint64(1);
        QTest::newRow("flag from two regional indicators") << QStringLiteral("🇩🇪") << qint64(1);
        QTest::newRow("thumbs up with skin tone") << QStringLiteral("👍🏽") << qint64(1);
        QTest::newRow("rainbow flag") << QStringLiteral("🏳️‍🌈") << qint64(1);
        QTest::newRow("Hangul syllable from jamo") << QStringLiteral("\u1100\u1161\u11A8") << qint64(1);
        QTest::newRow("CR LF") << QStringLiteral("\r\n") << qint64(1);
        QTest::newRow("precomposed word") << QStringLiteral("héllo") << qint64(5);
        QTest::newRow("mixed sentence") << QStringLiteral("Hi 👋🏽, Zoë\u0308!") << qint64(10);
    }

    void characterCount()
    {
        QFETCH(QString, text);
        QFETCH(qint64, expected);
        QCOMPARE(UsageManager::characterCount(text), expected);
    }

    void corruptValuesLoadAsDefaults_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<UsageStats>("allTime");
        QTest::addColumn<UsageStats>("thisMonth");
        QTest::addColumn<UsageStats>("thisWeek");

        const UsageStats all{900, 9}, month{600, 6}, week{300, 3}, zero{};
        const QString a = UsageManager::allTimeKey, m = UsageManager::thisMonthKey,
                      w = UsageManager::thisWeekKey;
        auto bytes = [](const char *s) { return QVariant(QByteArray(s)); };

        QTest::newRow("truncated JSON") << a << bytes(R"({"characters":12)") << zero << month << week;
        QTest::newRow("not JSON") << a << bytes("hello") << zero << month << week;
        QTest::newRow("an array") << a << bytes("[12,1]") << zero << month << week;
        QTest::newRow("count as text")
            << a << bytes(R"({"characters":"12","narrations":1})") << zero << month << week;
        QTest::newRow("fractional count")
            << m << bytes(R"({"characters":1.5,"narrations":1})") << all << zero << week;
        QTest::newRow("huge count") << m << bytes(R"({"characters":99999999999999999999,"narrations":1})")
                                    << all << zero << week;
        QTest::newRow("one past the 64-bit range")
            << m << bytes(R"({"characters":9223372036854775808,"narrations":1})") << all << zero << week;
        QTest::newRow("missing member") << w << bytes(R"({"characters":12})") << all << month << zero;
        QTest::newRow("null member") << w << bytes(R"({"characters":null,"narrations":1})") << all << month
                                     << zero;
        QTest::newRow("valid JSON stored as text")
            << w << QVariant(QStringLiteral(R"({"characters":12,"narrations":1})")) << all << month << zero;
        QTest::newRow("a plain number") << w << QVariant(5) << all << month << zero;
        // Stale dates stored as text: were they read as dates, both periods would roll over.
        QTest::newRow("week start as ISO text")
            << UsageManager::weekStartKey << QVariant(QStringLiteral("2020-01-06T00:00:00Z")) << all << month
            << week;
        QTest::newRow("month start as ISO text")
            << UsageManager::monthStartKey << QVariant(QStringLiteral("2020-01-01T00:00:00Z")) << all << month
            << week;
        QTest::newRow("week start as bytes")
            << UsageManager::weekStartKey << bytes("2020-01-06") << all << month << week;
        QTest::newRow("month start as a number")
            << UsageManager::monthStartKey << QVariant(1577836800) << all << month << week;
        // Not corrupt: unknown members are ignored, and the whole 64-bit range is a count.
        QTest::newRow("extra member") << a << bytes(R"({"characters":12,"narrations":1,"words":3})")
                                      << UsageStats{12, 1} << month << week;
        QTest::newRow("largest count") << a << bytes(R"({"characters":9223372036854775807,"narrations":0})")
                                       << UsageStats{9223372036854775807, 0} << month << week;
    }

    void corruptValuesLoadAsDefaults()
    {
        QFETCH(QString, key);
        QFETCH(QVariant, value);
        QFETCH(UsageStats, allTime);
        QFETCH(UsageStats, thisMonth);
        QFETCH(UsageStats, thisWeek);
        const QTimeZone tz("Europe/Paris");
        Fixture f("Europe/Paris", QStringLiteral("fr_FR"), at("2024-05-15T09:00:00+02:00"));
        f.storeState({900, 9}, {600, 6}, {300, 3}, QDate(2024, 5, 13).startOfDay(tz),
                     QDate(2024, 5, 1).startOfDay(tz));
        f.storeRaw(key, value);

        auto usage = f.open();
        QCOMPARE(usage->allTime(), allTime);
        QCOMPARE(usage->thisMonth(), thisMonth);
        QCOMPARE(usage->thisWeek(), thisWeek);
        QCOMPARE(usage->weekStart(), QDate(2024, 5, 13).startOfDay(tz));
        QCOMPARE(usage->monthStart(), QDate(2024, 5, 1).startOfDay(tz));
    }

    void periodSelectsItsRecord_data()
    {
        QTest::addColumn<int>("period");
        QTest::addColumn<QString>("label");
        QTest::addColumn<UsageStats>("expected");

        QTest::newRow("week") << int(UsagePeriod::thisWeek) << "This Week" << UsageStats{3, 1};
        QTest::newRow("month") << int(UsagePeriod::thisMonth) << "This Month" << UsageStats{20, 2};
        QTest::newRow("all time") << int(UsagePeriod::allTime) << "All Time" << UsageStats{100, 3};
    }

    void periodSelectsItsRecord()
    {
        QFETCH(int, period);
        QFETCH(QString, label);
        QFETCH(UsageStats, expected);
        const QTimeZone tz("Europe/Paris");
        Fixture f("Europe/Paris", QStringLiteral("fr_FR"), at("2024-05-15T09:00:00+02:00"));
        f.storeState({100, 3}, {20, 2}, {3, 1}, QDate(2024, 5, 13).startOfDay(tz),
                     QDate(2024, 5, 1).startOfDay(tz));

        auto usage = f.open();
        const auto p = UsagePeriod(period);
        QCOMPARE(usage->stats(p), expected);
        QCOMPARE(usagePeriodLabel(p), label);
        QCOMPARE(allUsagePeriods().indexOf(p), period);
    }
};

QTEST_GUILESS_MAIN(TestUsageManager)
#include "tst_usagemanager.moc"
