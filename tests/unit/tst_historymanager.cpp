// SPDX-License-Identifier: GPL-3.0-or-later
// The settings file and the records kept in it: the history list with its audio folder, and the usage
// counts.
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

char *toString(const UsageStats &s)
{
    return QTest::toString(
        QStringLiteral("{characters %1, narrations %2}").arg(s.characters).arg(s.narrations));
}

namespace {

QDateTime at(const char *iso)
{
    const QDateTime d = QDateTime::fromString(QString::fromLatin1(iso), Qt::ISODate);
    if (!d.isValid() && *iso)
        qFatal("bad test time %s", iso);
    return d;
}

// Audio that reaches both ends of the 16-bit range, so that a sign or byte-order slip cannot round-trip.
QByteArray makePcm(int frames, int seed)
{
    QByteArray bytes(frames * 2, Qt::Uninitialized);
    for (int i = 0; i < frames; ++i) {
        const double v = 20000.0 * std::sin((i + seed) * 0.031) + 9000.0 * std::sin(i * 0.27);
        qToLittleEndian<qint16>(qint16(i == 7 ? 32767 : std::lround(i == 11 ? -32768 : v)),
                                bytes.data() + 2 * i);
    }
    return bytes;
}

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(bytes) == bytes.size();
}

const QString kId = QStringLiteral("3F2504E0-4F89-41D3-9A0C-0305E82C3301");

QJsonObject entryJson(const QString &id, const QString &text)
{
    return {{"id", id}, {"text", text}, {"voice", "marin"}, {"timestamp", 7.6e8}, {"durationSeconds", 1.5}};
}

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
        others.append(s.id.toString(QUuid::WithoutBraces).toUpper() + QStringLiteral(".pcm"));
    others.sort();
    return others;
}

const QStringList kRecordKeys{UsageManager::allTimeKey, UsageManager::thisMonthKey,
                              UsageManager::thisWeekKey};

QList<UsageStats> statsOf(const UsageManager &u)
{
    return {u.stats(UsagePeriod::allTime), u.stats(UsagePeriod::thisMonth), u.stats(UsagePeriod::thisWeek)};
}

// One machine per test: its own defaults file, audio folder, clock, time zone and locale.
struct World
{
    QTemporaryDir dir;
    QString confPath = dir.filePath(QStringLiteral("Quillvox.conf"));
    QString historyPath = dir.filePath(QStringLiteral("Quillvox/History"));
    QDateTime now;
    QTimeZone zone;
    QLocale locale;
    std::unique_ptr<UserDefaults> defaults; // opened once, by the first manager

    explicit World(const char *start = "2025-02-03T04:05:06.789Z", const char *zoneId = "Europe/Paris",
                   const char *localeName = "fr_FR")
        : now(at(start))
        , zone(zoneId)
        , locale(QString::fromLatin1(localeName))
    {}

    UserDefaults &openDefaults()
    {
        return *(defaults ? defaults : defaults = std::make_unique<UserDefaults>(confPath));
    }
    std::unique_ptr<HistoryManager> history()
    {
        return std::make_unique<HistoryManager>(openDefaults(), historyPath, [this] { return now; });
    }
    std::unique_ptr<UsageManager> usage()
    {
        return std::make_unique<UsageManager>(
            openDefaults(), [this] { return now; }, zone, locale);
    }
    // Written through a QSettings of its own, a value keeps exactly the type given, as another version
    // of the program might have left it.
    void storeRaw(const QString &key, const QVariant &value)
    {
        QSettings(confPath, QSettings::IniFormat).setValue(key, value);
    }
    QVariant readRaw() const
    {
        defaults->sync();
        return QSettings(confPath, QSettings::IniFormat).value(HistoryManager::userDefaultsKey);
    }
    QString file(const QString &name) const { return historyPath + u'/' + name; }
    QJsonArray storedArray() const { return QJsonDocument::fromJson(readRaw().toByteArray()).array(); }
    QStringList storedTexts() const
    {
        QStringList texts;
        for (const QJsonValue &v : storedArray())
            texts.append(v[QStringLiteral("text")].toString());
        return texts;
    }
    // The counts and the starts, as stored; {-1, -1} for a count that does not read.
    auto storedUsage() const
    {
        QList<UsageStats> records;
        for (const QString &key : kRecordKeys)
            records.append(
                UsageStats::fromJson(defaults->data(key).value_or("")).value_or(UsageStats{-1, -1}));
        return std::tuple(records, defaults->date(UsageManager::weekStartKey),
                          defaults->date(UsageManager::monthStartKey));
    }
};

struct Export
{
    const char *fileName;
    int majorFormat; // 0: the export fails
    int frames = 2400;
    bool listed = true, audioPresent = true;
};

// Times carry their UTC offset, so that each row says exactly which instant it means.
struct Periods
{
    const char *zone, *locale, *now, *storedWeekStart, *storedMonthStart, *weekStart, *monthStart;
    QString corruptKey = {}; // a value stored over the state, and that record as it then loads
    QVariant corruptValue = {};
    UsageStats loaded = {};
};

struct Week
{
    const char *name, *zone, *locale, *first, *second;
    bool sameWeek;
    const char *secondWeekStart;
};

} // namespace

class TestHistoryManager : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // What each typed reader gives: a letter for a string, Boolean, data or date that reads, then the
    // unsigned 32- and 64-bit values ("-": nothing). A value of the wrong stored type reads as nothing,
    // however convertible QVariant finds it. Bytes are the file's raw text; a value of another type is set
    // in this process, and keeps its type until the file is read again.
    void typedReads_data()
    {
        QTest::addColumn<QVariant>("stored");
        QTest::addColumn<QString>("expected");
        const auto row = [](const char *name, const QVariant &stored, const char *expected) {
            QTest::newRow(name) << stored << QString::fromLatin1(expected);
        };
        const auto text = [](const char *s) { return QVariant(QByteArray(s)); };
        row("u32 max", text("4294967295"), "s|4294967295|4294967295");
        row("u32 max + 1", text("4294967296"), "s|-|4294967296");
        row("minus one", text("-1"), "s|-|-");
        row("u64 max", text("18446744073709551615"), "s|-|18446744073709551615");
        row("u64 overflow", text("18446744073709551616"), "s|-|-");
        row("plain text", text("hello"), "s|-|-");
        row("leading space", text("\" 12\""), "s|-|-");
        row("ISO date as text", text("2026-11-21T10:00:00Z"), "s|-|-");
        row("true", text("true"), "sb|-|-");
        row("bytes", text("@ByteArray(12)"), "d|-|-");
        row("date", text("@DateTime(\\0\\0\\0\\x10\\0\\0\\0\\0\\0\\0%\\x8c\\x9a\\0\\x1bw@\\x1)"), "t|-|-");
        row("broken variant", text("@Variant(\\0\\0\\0\\x7f)"), "|-|-");
        row("list", text("a, b"), "|-|-");
        row("int -1, set here", QVariant(-1), "|-|-");
        row("double 12.5, set here", QVariant(12.5), "|-|-");
        row("bool true, set here", QVariant(true), "b|-|-");
    }

    void typedReads()
    {
        QFETCH(QVariant, stored);
        World w;
        const QString key = QStringLiteral("key");
        if (stored.typeId() == QMetaType::QByteArray)
            QVERIFY(writeFile(w.confPath, "[General]\nkey=" + stored.toByteArray() + "\n"));
        else
            w.storeRaw(key, stored);
        const UserDefaults &d = w.openDefaults();
        const auto number = [](const auto &v) { return v ? QString::number(*v) : QStringLiteral("-"); };
        const QString readable = QString::fromLatin1(d.string(key) ? "s" : "") + (d.boolean(key) ? "b" : "") +
                                 (d.data(key) ? "d" : "") + (d.date(key) ? "t" : "");
        QTEST(QString(readable + u'|' + number(d.unsigned32(key)) + u'|' + number(d.unsigned64(key))),
              "expected");
    }

    // Data and dates go through the file in the records' cases below, Booleans in tst_appdelegate's.
    void roundTripsThroughTheFile()
    {
        World w;
        {
            UserDefaults d(w.confPath);
            d.setString(QStringLiteral("selectedVoice"), QStringLiteral("cedar, or \"alloy\""));
            d.setUnsigned32(QStringLiteral("hotkeyKeyCode"), 4294967295u);
            d.setUnsigned64(QStringLiteral("hotkeyModifiers"), 0x180000);
        }
        UserDefaults &d = w.openDefaults();
        QCOMPARE(d.string(QStringLiteral("selectedVoice")), QStringLiteral("cedar, or \"alloy\""));
        QCOMPARE(d.unsigned32(QStringLiteral("hotkeyKeyCode")), 4294967295u);
        QCOMPARE(d.unsigned64(QStringLiteral("hotkeyModifiers")), quint64(0x180000));
        d.remove(QStringLiteral("selectedVoice"));
        QVERIFY(!d.contains(QStringLiteral("selectedVoice")));
        QVERIFY(!d.string(QStringLiteral("selectedVoice")));
    }

    void corruptFileReadsAsEmpty()
    {
        World w;
        QVERIFY(writeFile(w.confPath, QByteArray("\x00\xff\xfe[[[=\n\x01key", 13)));
        QVERIFY(!w.openDefaults().string(QStringLiteral("key")));
        QVERIFY(!w.defaults->unsigned32(QStringLiteral("key")));
        UserDefaults missing(w.dir.filePath("does/not/exist.conf"));
        QVERIFY(!missing.boolean(QStringLiteral("hasCompletedOnboarding")));
    }

    // Whole seconds, truncated; an hour stays in minutes.
    void formattedDuration()
    {
        const std::pair<double, const char *> rows[] = {
            {59.9, "59s"}, {60.0, "1m 0s"}, {125.4, "2m 5s"}, {3600.0, "60m 0s"}};
        for (const auto &[seconds, expected] : rows)
            QCOMPARE((NarrationSession{{}, {}, {}, {}, seconds}).formattedDuration(),
                     QString::fromLatin1(expected));
    }

    // A script of steps: "+text" adds, "-N" deletes the Nth entry by id, "-x" an id not in the list;
    // "orphan" puts a file no entry lists in the folder, "block" a regular file in the folder's place
    // (permissions do not stop root). After each step the stored list and the folder's files follow.
    void edits_data()
    {
        QTest::addColumn<QStringList>("script");
        QTest::addColumn<QStringList>("texts");
        QTest::addColumn<int>("changes");
        QStringList twelve, ten;
        for (int i = 1; i <= 12; ++i)
            twelve.append(QStringLiteral("+%1").arg(i));
        for (int i = 12; i > 2; --i)
            ten.append(QString::number(i));
        const QStringList five{"+a", "+b", "+b", "+c", "+d", "orphan"};
        QTest::newRow("newest ten kept") << twelve << ten << 12;
        // The second delete takes one of two entries with the same text and audio, told apart by id only.
        QTest::newRow("deletes") << five + QStringList{"-x", "-0", "-1", "-2"} << QStringList{"c", "b"} << 8;
        QTest::newRow("clear all") << five + QStringList{"-0", "clear"} << QStringList{} << 7;
        QTest::newRow("unwritable folder")
            << QStringList{"+0", "+1", "block", "+lost"} << QStringList{"1", "0"} << 2;
    }

    void edits()
    {
        QFETCH(QStringList, script);
        World w;
        auto history = w.history();
        QSignalSpy changed(history.get(), &HistoryManager::sessionsChanged);
        const QString orphan = QStringLiteral("0E2B1C1D-1111-4222-8333-444455556666.pcm");
        QStringList others;
        for (const QString &step : script) {
            if (step == u"clear")
                history->clearAll();
            else if (step == u"orphan")
                QVERIFY(writeFile(w.file(others.emplace_back(orphan)), "\0\0"));
            else if (step == u"block")
                QVERIFY(QDir(w.historyPath).removeRecursively() && writeFile(w.historyPath, "not a folder"));
            else if (step.startsWith(u'+'))
                history->addSession(step.mid(1), QStringLiteral("marin"), 0.25,
                                    makePcm(6000, int(step.size())));
            else
                history->deleteSession(step == u"-x" ? QUuid::createUuid()
                                                     : history->sessions()[step.mid(1).toInt()].id);
            QCOMPARE(w.storedTexts(), textsOf(*history));
            if (QFileInfo(w.historyPath).isDir()) // exactly the kept entries' files, no temporary one
                QCOMPARE(QDir(w.historyPath).entryList(QDir::Files | QDir::Hidden | QDir::System, QDir::Name),
                         audioFilesOf(*history, others));
        }
        QTEST(textsOf(*history), "texts");
        QTEST(int(changed.count()), "changes");
    }

    void storedShape()
    {
        World w;
        const QString text = QStringLiteral("Line one\nline \"two\" – ünïcödé 👍🏽");
        const QByteArray audio = makePcm(2400, 3);
        auto history = w.history();
        history->addSession(text, QStringLiteral("alloy"), 0.1, audio);
        QCOMPARE(w.readRaw().typeId(), QMetaType::QByteArray); // a data value, not a string
        QJsonObject entry = w.storedArray()[0].toObject();
        const QString id = entry.take(QStringLiteral("id")).toString();
        static const QRegularExpression uuid(
            QStringLiteral("^[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}$"));
        QVERIFY2(uuid.match(id).hasMatch(), qPrintable(id));
        // Exactly these members, each a JSON number or string; the time in seconds since 2001.
        const QJsonObject expected{
            {"text", text}, {"voice", "alloy"}, {"timestamp", 760248306.789}, {"durationSeconds", 0.1}};
        QCOMPARE(entry, expected);
        QFile file(w.file(id + QStringLiteral(".pcm")));
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), audio);
        w.now = at("2000-12-31T23:59:58.500Z"); // before 2001 the seconds are negative
        history->addSession(text, QStringLiteral("alloy"), 0.1, audio);
        QCOMPARE(w.storedArray()[0][QStringLiteral("timestamp")].toDouble(), -1.5);
        QCOMPARE(w.history()->sessions(), history->sessions()); // and back
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
        const auto json = [](const QJsonArray &a) { return QVariant(QJsonDocument(a).toJson()); };
        const auto list = [&](const QStringList &storedIds) {
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
        const auto corrupt = [&](const char *name, const QVariant &stored) {
            QTest::newRow(name) << stored << QStringList{kId} << QStringList{};
        };
        const auto with = [&](const char *name, const char *key, const QJsonValue &value) {
            QJsonObject o = good;
            o.insert(QLatin1String(key), value);
            corrupt(name, json({value.isUndefined() ? (o.remove(QLatin1String(key)), o) : o}));
        };
        const QByteArray whole = QJsonDocument(QJsonArray{good}).toJson();
        QJsonObject noTimestamp = good;
        noTimestamp.remove(QStringLiteral("timestamp"));
        corrupt("truncated JSON", whole.left(whole.size() / 2));
        corrupt("an object, not an array", QJsonDocument(good).toJson());
        corrupt("valid JSON stored as text", QString::fromUtf8(whole));
        corrupt("one bad entry among good ones", json({good, noTimestamp, good}));
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
        World w;
        QVERIFY(QDir().mkpath(w.historyPath));
        for (const QString &id : audioFiles)
            QVERIFY(writeFile(w.file(id + QStringLiteral(".pcm")), "\1\2"));
        w.storeRaw(HistoryManager::userDefaultsKey, stored);
        auto history = w.history();
        QCOMPARE(textsOf(*history), expectedTexts);
        QCOMPARE(w.readRaw(), stored);
        history->addSession(QStringLiteral("new"), QStringLiteral("marin"), 0.5, makePcm(10, 0));
        QCOMPARE(w.storedTexts(), QStringList{"new"} + expectedTexts);
    }

    void exportAudio_data()
    {
        QTest::addColumn<Export>("row");
        const int longer = 24000 * 3 + 17; // several read chunks, the last one partial
        QTest::newRow("WAV") << Export{"out.wav", SF_FORMAT_WAV, longer};
        QTest::newRow("WAV, upper-case extension") << Export{"OUT.WAV", SF_FORMAT_WAV, 5};
        QTest::newRow("FLAC") << Export{"out.flac", SF_FORMAT_FLAC, longer};
        QTest::newRow("Ogg Vorbis") << Export{"out.ogg", SF_FORMAT_OGG, longer};
        QTest::newRow("Ogg Vorbis as .oga") << Export{"out.oga", SF_FORMAT_OGG, 24000};
        QTest::newRow("unknown extension") << Export{"out.mp3", 0};
        QTest::newRow("entry not in the history") << Export{"out.wav", 0, 2400, false};
        QTest::newRow("audio file gone") << Export{"out.flac", 0, 2400, true, false};
        QTest::newRow("destination folder missing") << Export{"missing/out.wav", 0};
    }

    void exportAudio()
    {
        QFETCH(Export, row);
        const auto [fileName, majorFormat, frames, listed, audioPresent] = row;
        World w;
        auto history = w.history();
        const QByteArray pcm = makePcm(frames, 1);
        history->addSession(QStringLiteral("export me"), QStringLiteral("marin"), frames / 24000.0, pcm);
        const QUuid id = listed ? history->sessions().constFirst().id : QUuid::createUuid();
        if (!audioPresent)
            QVERIFY(QFile::remove(history->audioFile(id)));
        const QString target = w.dir.filePath(QString::fromLatin1(fileName));
        const auto result = history->exportAudio(id, target);
        QVERIFY2(result.ok == (majorFormat != 0), qPrintable(result.errorString));
        QCOMPARE(result.errorString.isEmpty(), result.ok);
        if (!result.ok) { // nothing, not even half a file, is left at or next to the target
            QCOMPARE(QDir(w.dir.path()).entryList(QDir::Files).filter(QStringLiteral("out")), QStringList{});
            return;
        }
        SF_INFO info{};
        SNDFILE *sf = sf_open(QFile::encodeName(target).constData(), SFM_READ, &info);
        QVERIFY2(sf, sf_strerror(nullptr));
        const auto closer = qScopeGuard([sf] { sf_close(sf); });
        QCOMPARE((QList<int>{info.format & SF_FORMAT_TYPEMASK, info.samplerate, info.channels}),
                 (QList<int>{majorFormat, 24000, 1}));
        QList<qint16> decoded(frames + 1);
        QCOMPARE(sf_readf_short(sf, decoded.data(), frames + 1), sf_count_t(frames));
        for (int i = 0; i < frames && majorFormat != SF_FORMAT_OGG; ++i)
            QCOMPARE(decoded[i], qFromLittleEndian<qint16>(pcm.constData() + 2 * i));
    }

    // The usage counts. The periods in force at load: the locale's week (Sunday for en_US) and the
    // calendar month in the machine's zone; one that has ended loads as zeros. Nothing is written at load
    // (a restart redoes it); the next narration stores the counts and the starts.
    void periodsAtLoad_data()
    {
        QTest::addColumn<Periods>("row"); // no stored week start: nothing stored
        const auto row = [](const char *name, const Periods &periods) { QTest::newRow(name) << periods; };
        row("first start", {"America/New_York", "en_US", "2024-05-15T14:00-04:00", "", "",
                            "2024-05-12T00:00-04:00", "2024-05-01T00:00-04:00"});
        // The same instant is already March in Tokyo and still February in Los Angeles. The week of
        // Monday February 26th runs into March.
        row("Tokyo, March 1st",
            {"Asia/Tokyo", "en_GB", "2024-03-01T03:00Z", "2024-02-26T00:00+09:00", "2024-02-01T00:00+09:00",
             "2024-02-26T00:00+09:00", "2024-03-01T00:00+09:00"});
        row("Los Angeles, still February 29th",
            {"America/Los_Angeles", "en_GB", "2024-03-01T03:00Z", "2024-02-26T00:00-08:00",
             "2024-02-01T00:00-08:00", "2024-02-26T00:00-08:00", "2024-02-01T00:00-08:00"});
        row("Berlin, first minute of March",
            {"Europe/Berlin", "en_GB", "2024-03-01T00:00:30+01:00", "2024-02-26T00:00+01:00",
             "2024-02-01T00:00+01:00", "2024-02-26T00:00+01:00", "2024-03-01T00:00+01:00"});
        // Wednesday May 15th in Berlin, with May's record: only the stored week start varies.
        const auto may = [&](const char *name, const char *storedWeek, const char *week) {
            row(name, {"Europe/Berlin", "en_GB", "2024-05-15T09:00+02:00", storedWeek,
                       "2024-05-01T00:00+02:00", week, "2024-05-01T00:00+02:00"});
        };
        may("Monday weeks: last week", "2024-05-06T00:00+02:00", "2024-05-13T00:00+02:00");
        may("Monday weeks: stored start a day early", "2024-05-12T00:00+02:00", "2024-05-13T00:00+02:00");
        // The comparison is by calendar day, not by instant.
        may("same day, later hour", "2024-05-13T18:00+02:00", "2024-05-13T18:00+02:00");
        may("this week's start, stored in UTC", "2024-05-12T22:00Z", "2024-05-13T00:00+02:00");
        // A stored value that does not read as what it should be loads as the default, the others as stored.
        const auto corrupt = [&](const char *name, const QString &key, const QVariant &value,
                                 UsageStats loaded = {}) {
            row(name, {"Europe/Paris", "fr_FR", "2024-05-15T09:00+02:00", "2024-05-13T00:00+02:00",
                       "2024-05-01T00:00+02:00", "2024-05-13T00:00+02:00", "2024-05-01T00:00+02:00", key,
                       value, loaded});
        };
        const auto bytes = [](const char *s) { return QVariant(QByteArray(s)); };
        const QString a = kRecordKeys[0], m = kRecordKeys[1], w = kRecordKeys[2];
        corrupt("truncated JSON", a, bytes(R"({"characters":12)"));
        corrupt("count as text", a, bytes(R"({"characters":"12","narrations":1})"));
        corrupt("fractional count", m, bytes(R"({"characters":1.5,"narrations":1})"));
        corrupt("one past the 64-bit range", m,
                bytes(R"({"characters":9223372036854775808,"narrations":1})"));
        corrupt("missing member", w, bytes(R"({"characters":12})"));
        corrupt("valid JSON stored as text", w, QStringLiteral(R"({"characters":12,"narrations":1})"));
        // Stale dates stored as text: were they read as dates, both periods would roll over.
        corrupt("week start as ISO text", UsageManager::weekStartKey, QStringLiteral("2020-01-06T00:00:00Z"));
        corrupt("month start as ISO text", UsageManager::monthStartKey,
                QStringLiteral("2020-01-01T00:00:00Z"));
        // Not corrupt: unknown members are ignored, and the whole 64-bit range is a count.
        corrupt("extra member", a, bytes(R"({"characters":12,"narrations":1,"words":3})"), {12, 1});
        corrupt("largest count", a, bytes(R"({"characters":9223372036854775807,"narrations":0})"),
                {9223372036854775807, 0});
    }

    void periodsAtLoad()
    {
        QFETCH(Periods, row);
        const QDateTime storedWeekStart = at(row.storedWeekStart), weekStart = at(row.weekStart),
                        monthStart = at(row.monthStart);
        const bool stored = storedWeekStart.isValid();
        World w(row.now, row.zone, row.locale);
        const QList<UsageStats> previous{{5000, 50}, {900, 9}, {100, 2}};
        QList<UsageStats> loaded(3);
        if (stored) { // the state a previous run left: three records and the two starts
            UserDefaults d(w.confPath);
            for (int i = 0; i < 3; ++i)
                d.setData(kRecordKeys[i], previous[i].toJson());
            d.setDate(UsageManager::weekStartKey, storedWeekStart);
            d.setDate(UsageManager::monthStartKey, at(row.storedMonthStart));
            loaded = {previous[0], monthStart == at(row.storedMonthStart) ? previous[1] : UsageStats{},
                      weekStart == storedWeekStart ? previous[2] : UsageStats{}};
        }
        if (!row.corruptKey.isEmpty())
            w.storeRaw(row.corruptKey, row.corruptValue);
        if (kRecordKeys.contains(row.corruptKey))
            loaded[kRecordKeys.indexOf(row.corruptKey)] = row.loaded;
        w.openDefaults();
        const auto before = w.storedUsage();
        for (int run = 0; run < 2; ++run) {
            auto usage = w.usage();
            QCOMPARE(statsOf(*usage), loaded);
            QCOMPARE(usage->weekStart(), weekStart);
            QCOMPARE(usage->monthStart(), monthStart);
            QCOMPARE(w.storedUsage(), before);
        }
        if (!row.corruptKey.isEmpty())
            return; // (the largest count could not take one more narration)
        auto usage = w.usage();
        QSignalSpy changed[] = {{usage.get(), &UsageManager::allTimeChanged},
                                {usage.get(), &UsageManager::thisMonthChanged},
                                {usage.get(), &UsageManager::thisWeekChanged}};
        usage->recordNarration(40);
        for (const QSignalSpy &spy : changed)
            QCOMPARE(spy.count(), 1);
        QList<UsageStats> after;
        for (const UsageStats &s : loaded)
            after.append({s.characters + 40, s.narrations + 1});
        QCOMPARE(statsOf(*usage), after);
        QCOMPARE(w.storedUsage(), std::tuple(after, std::optional(weekStart), std::optional(monthStart)));
        QCOMPARE(*w.defaults->data(UsageManager::allTimeKey),
                 R"({"characters":)" + QByteArray::number(after[0].characters) + R"(,"narrations":)" +
                     QByteArray::number(after[0].narrations) + '}');
    }

    void weekBoundaries_data()
    {
        QTest::addColumn<Week>("row");
        const Week rows[] = {
            {"Monday weeks: Sunday evening, Monday morning", "Europe/London", "en_GB",
             "2024-06-09T21:00+01:00", "2024-06-10T08:00+01:00", false, "2024-06-10T00:00+01:00"},
            {"Sunday weeks: Sunday evening, Monday morning", "America/Chicago", "en_US",
             "2024-06-09T21:00-05:00", "2024-06-10T08:00-05:00", true, "2024-06-09T00:00-05:00"},
            {"Saturday weeks: Friday, Saturday", "Africa/Cairo", "ar_EG", "2024-12-13T21:00+02:00",
             "2024-12-14T08:00+02:00", false, "2024-12-14T00:00+02:00"},
            // Daylight-saving changes: a week or a day is not a fixed number of hours.
            {"Berlin spring forward inside a Monday week", "Europe/Berlin", "de_DE", "2024-03-25T09:00+01:00",
             "2024-03-31T12:00+02:00", true, "2024-03-25T00:00+01:00"},
            {"New York, spring forward on the first day of the week", "America/New_York", "en_US",
             "2024-03-09T23:30-05:00", "2024-03-10T03:30-04:00", false, "2024-03-10T00:00-05:00"},
            {"New York, fall back: Sunday 00:30 to Saturday night", "America/New_York", "en_US",
             "2024-11-03T00:30-04:00", "2024-11-09T23:59-05:00", true, "2024-11-03T00:00-04:00"},
            {"New York, fall back: Saturday night, then 25 hours later", "America/New_York", "en_US",
             "2024-11-02T23:30-04:00", "2024-11-03T23:30-05:00", false, "2024-11-03T00:00-04:00"},
            // Chile skips midnight itself: the week begins at 01:00.
            {"Santiago, no midnight on the first day of the week", "America/Santiago", "en_US",
             "2024-09-07T23:30-04:00", "2024-09-08T01:30-03:00", false, "2024-09-08T01:00-03:00"},
        };
        for (const Week &row : rows)
            QTest::newRow(row.name) << row;
    }

    void weekBoundaries()
    {
        QFETCH(Week, row);
        World w(row.first, row.zone, row.locale);
        auto usage = w.usage();
        usage->recordNarration(10);
        w.now = at(row.second);
        QSignalSpy weekChanged(usage.get(), &UsageManager::thisWeekChanged);
        usage->recordNarration(20);
        QCOMPARE(usage->thisWeek(), (row.sameWeek ? UsageStats{30, 2} : UsageStats{20, 1}));
        QCOMPARE(usage->allTime(), (UsageStats{30, 2}));
        QCOMPARE(usage->weekStart(), at(row.secondWeekStart));
        QCOMPARE(w.defaults->date(UsageManager::weekStartKey), at(row.secondWeekStart));
        QVERIFY(weekChanged.count() >= 1);
        QCOMPARE(w.usage()->thisWeek(), usage->thisWeek()); // a restart in the same week keeps the count
    }
};

QTEST_GUILESS_MAIN(TestHistoryManager)
#include "tst_historymanager.moc"
