// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/UserDefaults.h"
#include "records/HistoryManager.h"
#include "records/UsageManager.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QtEndian>

#include <sndfile.h>

#include <cmath>
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

// Deterministic audio that reaches both ends of the 16-bit range, so that a sign or byte-order slip
// cannot round-trip by accident.
QByteArray makePcm(int frames, int seed)
{
    QByteArray bytes(frames * 2, Qt::Uninitialized);
    for (int i = 0; i < frames; ++i) {
        const double v = 20000.0 * std::sin((i + seed) * 0.031) + 9000.0 * std::sin(i * 0.27);
        qToLittleEndian<qint16>(i == 7    ? 32767
                                : i == 11 ? -32768
                                          : qint16(std::lround(v)),
                                bytes.data() + 2 * i);
    }
    return bytes;
}

QList<qint16> samplesOf(const QByteArray &pcm)
{
    QList<qint16> samples;
    for (qsizetype i = 0; i + 1 < pcm.size(); i += 2)
        samples.append(qFromLittleEndian<qint16>(pcm.constData() + i));
    return samples;
}

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(bytes) == bytes.size();
}

QString upper(const QUuid &id)
{
    return id.toString(QUuid::WithoutBraces).toUpper();
}

QJsonObject entryJson(const QString &id, const QString &text)
{
    return QJsonObject{{QStringLiteral("id"), id},
                       {QStringLiteral("text"), text},
                       {QStringLiteral("voice"), QStringLiteral("marin")},
                       {QStringLiteral("timestamp"), 760000000.25},
                       {QStringLiteral("durationSeconds"), 1.5}};
}

const QString kId = QStringLiteral("3F2504E0-4F89-41D3-9A0C-0305E82C3301");

// A defaults file of its own, opened once by the manager under test.
struct DefaultsFixture
{
    QTemporaryDir dir;
    QString confPath = dir.filePath(QStringLiteral("Quillvox.conf"));
    std::unique_ptr<UserDefaults> defaults;

    // Values written through a QSettings of their own keep exactly the type given (bytes, text,
    // numbers), as another version of the program might have left them.
    void storeRaw(const QString &key, const QVariant &value)
    {
        QSettings(confPath, QSettings::IniFormat).setValue(key, value);
    }
    UserDefaults &openDefaults()
    {
        if (!defaults)
            defaults = std::make_unique<UserDefaults>(confPath);
        return *defaults;
    }
};

// One history world per test: its own defaults file, audio folder and clock.
struct HistoryFixture : DefaultsFixture
{
    QString historyPath = dir.filePath(QStringLiteral("Quillvox/History"));
    QDateTime now = at("2025-02-03T04:05:06.789Z");

    void storeRaw(const QVariant &value)
    {
        DefaultsFixture::storeRaw(HistoryManager::userDefaultsKey, value);
    }
    QVariant readRaw() const
    {
        defaults->sync();
        return QSettings(confPath, QSettings::IniFormat).value(HistoryManager::userDefaultsKey);
    }
    std::unique_ptr<HistoryManager> open()
    {
        return std::make_unique<HistoryManager>(openDefaults(), historyPath, [this] { return now; });
    }
    QString file(const QString &name) const { return historyPath + u'/' + name; }
    QStringList filesInHistory() const
    {
        return QDir(historyPath).entryList(QDir::Files | QDir::Hidden | QDir::System, QDir::Name);
    }
    QJsonArray storedArray() const { return QJsonDocument::fromJson(readRaw().toByteArray()).array(); }
    QStringList storedTexts() const
    {
        QStringList texts;
        for (const QJsonValue &v : storedArray())
            texts.append(v[QStringLiteral("text")].toString());
        return texts;
    }
};

QStringList textsOf(const HistoryManager &history)
{
    QStringList texts;
    for (const NarrationSession &s : history.sessions())
        texts.append(s.text);
    return texts;
}

// The listed entries' audio files and `others`, sorted as the folder lists them.
QStringList audioFilesOf(const HistoryManager &history, QStringList others = {})
{
    for (const NarrationSession &s : history.sessions())
        others.append(upper(s.id) + QStringLiteral(".pcm"));
    others.sort();
    return others;
}

const QStringList kAllKeys{UsageManager::allTimeKey, UsageManager::thisMonthKey, UsageManager::thisWeekKey,
                           UsageManager::weekStartKey, UsageManager::monthStartKey};

// One machine per test: its own defaults file, clock, time zone and locale.
struct UsageFixture : DefaultsFixture
{
    QDateTime now;
    QTimeZone zone;
    QLocale locale;

    UsageFixture(const QByteArray &zoneId, const QString &localeName, const QDateTime &start)
        : now(start)
        , zone(zoneId)
        , locale(localeName)
    {
        if (!zone.isValid())
            qFatal("no time zone %s", zoneId.constData());
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
        return std::make_unique<UsageManager>(
            openDefaults(), [this] { return now; }, zone, locale);
    }
    UsageStats stored(const QString &key) const
    {
        const auto bytes = defaults->data(key);
        return bytes ? UsageStats::fromJson(*bytes).value_or(UsageStats{-1, -1}) : UsageStats{-1, -1};
    }
};

} // namespace

class TestHistoryManager : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Whole seconds, truncated; an hour stays in minutes.
    void formattedDuration()
    {
        const std::pair<double, const char *> rows[] = {
            {59.9, "59s"}, {60.0, "1m 0s"}, {125.4, "2m 5s"}, {3600.0, "60m 0s"}};
        for (const auto &[seconds, expected] : rows) {
            NarrationSession s;
            s.durationSeconds = seconds;
            QCOMPARE(s.formattedDuration(), QString::fromLatin1(expected));
        }
    }

    void keepsTheNewestTen()
    {
        HistoryFixture f;
        auto history = f.open();
        QSignalSpy changed(history.get(), &HistoryManager::sessionsChanged);
        QStringList expectedTexts;
        for (int i = 1; i <= 12; ++i) {
            history->addSession(QStringLiteral("narration %1").arg(i), QStringLiteral("cedar"), 0.25,
                                makePcm(6000, i));
            expectedTexts = (QStringList{QStringLiteral("narration %1").arg(i)} + expectedTexts).mid(0, 10);
            QCOMPARE(changed.count(), i);
            QCOMPARE(textsOf(*history), expectedTexts);
            QCOMPARE(f.storedTexts(), expectedTexts);
            // Exactly the kept entries' files: evicted ones are deleted and no temporary file is left.
            QCOMPARE(f.filesInHistory(), audioFilesOf(*history));
        }
    }

    void storedShape()
    {
        HistoryFixture f;
        const QString text = QStringLiteral("Line one\nline \"two\" – ünïcödé 👍🏽");
        const QByteArray audio = makePcm(2400, 3);
        auto history = f.open();
        history->addSession(text, QStringLiteral("alloy"), 0.1, audio);
        QCOMPARE(history->sessions().constFirst().timestamp, f.now);

        // A data value, not a string.
        QCOMPARE(f.readRaw().typeId(), QMetaType::QByteArray);
        const QJsonArray stored = f.storedArray();
        QCOMPARE(stored.size(), 1);
        QJsonObject entry = stored[0].toObject();
        const QString id = entry.take(QStringLiteral("id")).toString();
        static const QRegularExpression uuid(
            QStringLiteral("^[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}$"));
        QVERIFY2(uuid.match(id).hasMatch(), qPrintable(id));
        // Exactly these members, each a JSON number or string; the time in seconds since 2001.
        QCOMPARE(
            entry,
            (QJsonObject{
                {"text", text}, {"voice", "alloy"}, {"timestamp", 760248306.789}, {"durationSeconds", 0.1}}));
        QFile file(f.file(id + QStringLiteral(".pcm")));
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), audio);

        // Before 2001 the seconds are negative.
        f.now = at("2000-12-31T23:59:58.500Z");
        history->addSession(text, QStringLiteral("alloy"), 0.1, audio);
        QCOMPARE(f.storedArray()[0][QStringLiteral("timestamp")].toDouble(), -1.5);

        // And back: a new instance reads the same records.
        QCOMPARE(f.open()->sessions(), history->sessions());
    }

    // Entries whose audio is gone are left out, and a list that does not decode as a whole loads as
    // empty. Neither is written back at load: the next save replaces the stored value.
    void load_data()
    {
        QTest::addColumn<QVariant>("stored");
        QTest::addColumn<QStringList>("audioFiles"); // the ids whose audio exists
        QTest::addColumn<QStringList>("expectedTexts");

        const QStringList ids{kId, QStringLiteral("5C1A7D3E-2B4F-4E6A-8D9C-0A1B2C3D4E5F"),
                              QStringLiteral("00000000-0000-0000-0000-000000000000")};
        auto json = [](const QJsonValue &v) {
            return QVariant(v.isArray() ? QJsonDocument(v.toArray()).toJson()
                                        : QJsonDocument(v.toObject()).toJson());
        };
        auto list = [&](const QStringList &storedIds) {
            QJsonArray array;
            for (const QString &id : storedIds)
                array.append(entryJson(id, QString::number(array.size())));
            return json(array);
        };
        QTest::newRow("middle removed") << list(ids) << QStringList{ids[0], ids[2]} << QStringList{"0", "2"};
        QTest::newRow("all removed") << list(ids) << QStringList{} << QStringList{};
        QTest::newRow("lower-case id finds the upper-case file")
            << list({ids[0].toLower(), ids[1]}) << QStringList{ids[0]} << QStringList{"0"};

        // Corrupt values: the entry's file exists, so only the stored value can make the list empty.
        const QJsonObject good = entryJson(kId, QStringLiteral("kept?"));
        auto corrupt = [&](const char *name, const QVariant &stored) {
            QTest::newRow(name) << stored << QStringList{kId} << QStringList{};
        };
        auto with = [&](const char *name, const char *key, const QJsonValue &value) {
            QJsonObject o = good;
            if (value.isUndefined())
                o.remove(QLatin1String(key));
            else
                o.insert(QLatin1String(key), value);
            corrupt(name, json(QJsonArray{o}));
        };
        const QByteArray whole = QJsonDocument(QJsonArray{good}).toJson();
        corrupt("truncated JSON", whole.left(whole.size() / 2));
        corrupt("an object, not an array", json(good));
        corrupt("valid JSON stored as text", QString::fromUtf8(whole));
        QJsonObject noTimestamp = good;
        noTimestamp.remove(QStringLiteral("timestamp"));
        corrupt("one bad entry among good ones", json(QJsonArray{good, noTimestamp, good}));
        with("missing voice", "voice", QJsonValue::Undefined);
        with("id not a UUID", "id", QStringLiteral("entry-1"));
        with("id in braces", "id", QString(u'{' + kId + u'}'));
        with("timestamp as text", "timestamp", QStringLiteral("760000000"));
        with("duration as text", "durationSeconds", QStringLiteral("1.5"));
        with("text null", "text", QJsonValue::Null);
    }

    void load()
    {
        QFETCH(QVariant, stored);
        QFETCH(QStringList, audioFiles);
        QFETCH(QStringList, expectedTexts);
        HistoryFixture f;
        QVERIFY(QDir().mkpath(f.historyPath));
        for (const QString &id : audioFiles)
            QVERIFY(writeFile(f.file(id + QStringLiteral(".pcm")), "\1\2"));
        f.storeRaw(stored);

        auto history = f.open();
        QCOMPARE(textsOf(*history), expectedTexts);
        QCOMPARE(f.readRaw(), stored);
        history->addSession(QStringLiteral("new"), QStringLiteral("marin"), 0.5, makePcm(10, 0));
        QCOMPARE(f.storedTexts(), QStringList{"new"} + expectedTexts);
    }

    // Permissions do not stop root, so the folder is blocked by a regular file in its place.
    void unwritableFolderLeavesHistoryUnchanged()
    {
        HistoryFixture f;
        auto history = f.open();
        for (int i = 0; i < 2; ++i)
            history->addSession(QString::number(i), QStringLiteral("marin"), 0.1, makePcm(10, i));
        QVERIFY(QDir(f.historyPath).removeRecursively());
        QVERIFY(writeFile(f.historyPath, "not a folder"));
        const auto sessionsBefore = history->sessions();
        const QVariant storedBefore = f.readRaw();
        QSignalSpy changed(history.get(), &HistoryManager::sessionsChanged);

        history->addSession(QStringLiteral("lost"), QStringLiteral("marin"), 0.1, makePcm(10, 9));

        QCOMPARE(history->sessions(), sessionsBefore);
        QCOMPARE(changed.count(), 0);
        QCOMPARE(f.readRaw(), storedBefore);
    }

    // In turn: an id that is not in the list, the newest, one of two entries with the same text and audio
    // (told apart by their ids only), the oldest, then all (-2). A file no entry lists is never touched.
    void deleteSession()
    {
        HistoryFixture f;
        auto history = f.open();
        for (const char *t : {"a", "b", "b", "c", "d"})
            history->addSession(QString::fromLatin1(t), QStringLiteral("marin"), 0.1, makePcm(10, 0));
        const QString orphan = QStringLiteral("0E2B1C1D-1111-4222-8333-444455556666.pcm");
        QVERIFY(writeFile(f.file(orphan), "\0\0"));
        QSignalSpy changed(history.get(), &HistoryManager::sessionsChanged);

        const std::pair<int, QStringList> steps[] = {{-1, {"d", "c", "b", "b", "a"}},
                                                     {0, {"c", "b", "b", "a"}},
                                                     {1, {"c", "b", "a"}},
                                                     {2, {"c", "b"}},
                                                     {-2, {}}};
        for (const auto &[index, expectedTexts] : steps) {
            changed.clear();
            if (index == -2)
                history->clearAll();
            else
                history->deleteSession(index < 0 ? QUuid::createUuid() : history->sessions()[index].id);
            QCOMPARE(textsOf(*history), expectedTexts);
            QCOMPARE(f.storedTexts(), expectedTexts);
            QCOMPARE(f.filesInHistory(), audioFilesOf(*history, {orphan}));
            QCOMPARE(changed.count(), index == -1 ? 0 : 1);
        }
    }

    void exportAudio_data()
    {
        QTest::addColumn<QString>("fileName");
        QTest::addColumn<int>("majorFormat"); // 0: the export fails
        QTest::addColumn<int>("frames");
        QTest::addColumn<bool>("listed");
        QTest::addColumn<bool>("audioPresent");

        // Several read chunks, the last one partial.
        const int longer = 24000 * 3 + 17;
        QTest::newRow("WAV") << "out.wav" << int(SF_FORMAT_WAV) << longer << true << true;
        QTest::newRow("WAV, upper-case extension") << "OUT.WAV" << int(SF_FORMAT_WAV) << 5 << true << true;
        QTest::newRow("FLAC") << "out.flac" << int(SF_FORMAT_FLAC) << longer << true << true;
        QTest::newRow("Ogg Vorbis") << "out.ogg" << int(SF_FORMAT_OGG) << longer << true << true;
        QTest::newRow("Ogg Vorbis as .oga") << "out.oga" << int(SF_FORMAT_OGG) << 24000 << true << true;
        QTest::newRow("unknown extension") << "out.mp3" << 0 << 2400 << true << true;
        QTest::newRow("entry not in the history") << "out.wav" << 0 << 2400 << false << true;
        QTest::newRow("audio file gone") << "out.flac" << 0 << 2400 << true << false;
        QTest::newRow("destination folder missing") << "missing/out.wav" << 0 << 2400 << true << true;
    }

    void exportAudio()
    {
        QFETCH(QString, fileName);
        QFETCH(int, majorFormat);
        QFETCH(int, frames);
        QFETCH(bool, listed);
        QFETCH(bool, audioPresent);
        HistoryFixture f;
        auto history = f.open();
        const QByteArray pcm = makePcm(frames, 1);
        history->addSession(QStringLiteral("export me"), QStringLiteral("marin"), frames / 24000.0, pcm);
        const QUuid id = listed ? history->sessions().constFirst().id : QUuid::createUuid();
        if (!audioPresent)
            QVERIFY(QFile::remove(history->audioFile(id)));
        const QString target = f.dir.filePath(fileName);

        const auto result = history->exportAudio(id, target);
        QVERIFY2(result.ok == (majorFormat != 0), qPrintable(result.errorString));
        QCOMPARE(result.errorString.isEmpty(), result.ok);
        if (!result.ok) {
            // Nothing, not even half a file, is left at or next to the target.
            QCOMPARE(QDir(f.dir.path()).entryList(QDir::Files).filter(QStringLiteral("out")), QStringList{});
            return;
        }

        SF_INFO info{};
        SNDFILE *sf = sf_open(QFile::encodeName(target).constData(), SFM_READ, &info);
        QVERIFY2(sf, sf_strerror(nullptr));
        const auto closer = qScopeGuard([sf] { sf_close(sf); });
        QCOMPARE(info.format & SF_FORMAT_TYPEMASK, majorFormat);
        QCOMPARE(info.samplerate, 24000);
        QCOMPARE(info.channels, 1);

        QList<qint16> decoded(frames + 1);
        QCOMPARE(sf_readf_short(sf, decoded.data(), frames + 1), sf_count_t(frames));
        if (majorFormat != SF_FORMAT_OGG) {
            decoded.resize(frames);
            QCOMPARE(decoded, samplesOf(pcm));
        }
    }

    // The usage counts.
    // Nothing stored: the periods start at midnight on the locale's first day of the week (Sunday here)
    // and on the first of the month, and nothing is written until a narration is recorded.
    void firstStart()
    {
        const QDateTime weekStart = at("2024-05-12T00:00:00-04:00"),
                        monthStart = at("2024-05-01T00:00:00-04:00");
        UsageFixture f("America/New_York", QStringLiteral("en_US"), at("2024-05-15T14:00:00-04:00"));

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
        UsageFixture f(zone, locale, now);
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
        UsageFixture f(zone, locale, first);

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
        UsageFixture f("Europe/Paris", QStringLiteral("fr_FR"), at("2024-05-15T09:00:00+02:00"));
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

QTEST_GUILESS_MAIN(TestHistoryManager)
#include "tst_historymanager.moc"
