// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/UserDefaults.h"
#include "records/HistoryManager.h"

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

namespace {

QDateTime utc(const char *iso)
{
    return QDateTime::fromString(QString::fromLatin1(iso), Qt::ISODateWithMs).toUTC();
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

// One history world per test: its own defaults file, audio folder and clock.
struct Fixture
{
    QTemporaryDir dir;
    QString confPath = dir.filePath(QStringLiteral("Quillvox.conf"));
    QString historyPath = dir.filePath(QStringLiteral("Quillvox/History"));
    std::unique_ptr<UserDefaults> defaults;
    QDateTime now = utc("2025-02-03T04:05:06.789Z");

    // Values written through a QSettings of their own keep exactly the type given (bytes, text,
    // numbers), as another version of the program might have left them.
    void storeRaw(const QVariant &value)
    {
        QSettings(confPath, QSettings::IniFormat).setValue(HistoryManager::userDefaultsKey, value);
    }
    QVariant readRaw() const
    {
        defaults->sync();
        return QSettings(confPath, QSettings::IniFormat).value(HistoryManager::userDefaultsKey);
    }
    std::unique_ptr<HistoryManager> open()
    {
        if (!defaults)
            defaults = std::make_unique<UserDefaults>(confPath);
        return std::make_unique<HistoryManager>(*defaults, historyPath, [this] { return now; });
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
        Fixture f;
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
        Fixture f;
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
        f.now = utc("2000-12-31T23:59:58.500Z");
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
        QTest::newRow("all present") << list(ids) << ids << QStringList{"0", "1", "2"};
        QTest::newRow("middle removed") << list(ids) << QStringList{ids[0], ids[2]} << QStringList{"0", "2"};
        QTest::newRow("newest removed") << list(ids) << QStringList{ids[1], ids[2]} << QStringList{"1", "2"};
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
        Fixture f;
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
        Fixture f;
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
        Fixture f;
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
        QTest::newRow("no extension") << "out" << 0 << 2400 << true << true;
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
        Fixture f;
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
};

QTEST_GUILESS_MAIN(TestHistoryManager)
#include "tst_historymanager.moc"
