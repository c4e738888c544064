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
        qint16 v = qint16(std::lround(20000.0 * std::sin((i + seed) * 0.031) + 9000.0 * std::sin(i * 0.27)));
        if (i == 7)
            v = 32767;
        if (i == 11)
            v = -32768;
        qToLittleEndian<qint16>(v, bytes.data() + 2 * i);
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

QByteArray readFile(const QString &path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return {};
    return f.readAll();
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
    void storeRaw(const QString &key, const QVariant &value)
    {
        QSettings s(confPath, QSettings::IniFormat);
        s.setValue(key, value);
    }
    QVariant readRaw(const QString &key) const
    {
        defaults->sync();
        return QSettings(confPath, QSettings::IniFormat).value(key);
    }
    std::unique_ptr<HistoryManager> open()
    {
        if (!defaults)
            defaults = std::make_unique<UserDefaults>(confPath);
        return std::make_unique<HistoryManager>(*defaults, historyPath, [this] { return now; });
    }
    QStringList filesInHistory() const
    {
        return QDir(historyPath).entryList(QDir::Files | QDir::Hidden | QDir::System, QDir::Name);
    }
    QJsonArray storedArray() const
    {
        const auto bytes = defaults->data(HistoryManager::userDefaultsKey);
        return bytes ? QJsonDocument::fromJson(*bytes).array() : QJsonArray();
    }
};

} // namespace

class TestHistoryManager : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void formattedDuration_data()
    {
        QTest::addColumn<double>("seconds");
        QTest::addColumn<QString>("expected");

        QTest::newRow("59.9 truncates") << 59.9 << "59s";
        QTest::newRow("one minute") << 60.0 << "1m 0s";
        QTest::newRow("125.4") << 125.4 << "2m 5s";
        QTest::newRow("under a second") << 0.99 << "0s";
        QTest::newRow("just under two minutes") << 119.999 << "1m 59s";
        QTest::newRow("an hour stays in minutes") << 3600.0 << "60m 0s";
    }

    void formattedDuration()
    {
        QFETCH(double, seconds);
        QFETCH(QString, expected);
        NarrationSession s;
        s.durationSeconds = seconds;
        QCOMPARE(s.formattedDuration(), expected);
    }

    void keepsTheNewestTen_data()
    {
        QTest::addColumn<int>("added");
        QTest::newRow("one") << 1;
        QTest::newRow("ten") << 10;
        QTest::newRow("eleventh evicts the oldest") << 11;
        QTest::newRow("fifteen") << 15;
    }

    void keepsTheNewestTen()
    {
        QFETCH(int, added);
        Fixture f;
        auto history = f.open();
        QSignalSpy changed(history.get(), &HistoryManager::sessionsChanged);

        QList<QUuid> ids;
        for (int i = 1; i <= added; ++i) {
            f.now = f.now.addSecs(30);
            history->addSession(QStringLiteral("narration %1").arg(i), QStringLiteral("cedar"), 0.25,
                                makePcm(6000, i));
            ids.append(history->sessions().constFirst().id);
        }
        QCOMPARE(changed.count(), added);

        const int kept = std::min(added, 10);
        const auto sessions = history->sessions();
        QCOMPARE(sessions.size(), kept);
        for (int i = 0; i < kept; ++i)
            QCOMPARE(sessions[i].text, QStringLiteral("narration %1").arg(added - i));

        // Exactly the kept entries' files: evicted ones are deleted and no temporary file is left.
        QStringList expectedFiles;
        for (int i = added - kept; i < added; ++i)
            expectedFiles.append(upper(ids[i]) + QStringLiteral(".pcm"));
        expectedFiles.sort();
        QCOMPARE(f.filesInHistory(), expectedFiles);
        QCOMPARE(readFile(history->audioFile(sessions.constFirst().id)), makePcm(6000, added));

        const QJsonArray stored = f.storedArray();
        QCOMPARE(stored.size(), kept);
        for (int i = 0; i < kept; ++i)
            QCOMPARE(stored[i][QStringLiteral("id")].toString(), upper(sessions[i].id));
    }

    void addSessionDoesNotDeduplicate()
    {
        Fixture f;
        auto history = f.open();
        const QByteArray audio = makePcm(100, 0);
        history->addSession(QStringLiteral("Same text"), QStringLiteral("marin"), 0.1, audio);
        history->addSession(QStringLiteral("Same text"), QStringLiteral("marin"), 0.1, audio);

        const auto sessions = history->sessions();
        QCOMPARE(sessions.size(), 2);
        QVERIFY(sessions[0].id != sessions[1].id);
        QCOMPARE(f.filesInHistory().size(), 2);
        QCOMPARE(f.storedArray().size(), 2);
    }

    void storedShape_data()
    {
        QTest::addColumn<QDateTime>("now");
        QTest::addColumn<double>("expectedTimestamp");

        QTest::newRow("with milliseconds") << utc("2025-02-03T04:05:06.789Z") << 760248306.789;
        QTest::newRow("the reference date") << utc("2001-01-01T00:00:00.000Z") << 0.0;
        QTest::newRow("before the reference date") << utc("2000-12-31T23:59:58.500Z") << -1.5;
    }

    void storedShape()
    {
        QFETCH(QDateTime, now);
        QFETCH(double, expectedTimestamp);
        Fixture f;
        f.now = now;
        const QString text = QStringLiteral("Line one\nline \"two\" – ünïcödé 👍🏽");
        const QByteArray audio = makePcm(2400, 3);
        {
            auto history = f.open();
            history->addSession(text, QStringLiteral("alloy"), 0.1, audio);
        }

        // A data value, not a string.
        QCOMPARE(f.readRaw(HistoryManager::userDefaultsKey).typeId(), QMetaType::QByteArray);
        const QJsonArray stored = f.storedArray();
        QCOMPARE(stored.size(), 1);
        const QJsonObject entry = stored[0].toObject();
        QStringList keys = entry.keys();
        keys.sort();
        QCOMPARE(keys,
                 (QStringList{QStringLiteral("durationSeconds"), QStringLiteral("id"), QStringLiteral("text"),
                              QStringLiteral("timestamp"), QStringLiteral("voice")}));
        const QString id = entry[QStringLiteral("id")].toString();
        QVERIFY2(QRegularExpression(
                     QStringLiteral("^[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}$"))
                     .match(id)
                     .hasMatch(),
                 qPrintable(id));
        QCOMPARE(entry[QStringLiteral("text")].toString(), text);
        QCOMPARE(entry[QStringLiteral("voice")].toString(), QStringLiteral("alloy"));
        QVERIFY(entry[QStringLiteral("timestamp")].isDouble());
        QCOMPARE(entry[QStringLiteral("timestamp")].toDouble(), expectedTimestamp);
        QCOMPARE(entry[QStringLiteral("durationSeconds")].toDouble(), 0.1);

        QCOMPARE(readFile(f.historyPath + u'/' + id + QStringLiteral(".pcm")), audio);

        // And back: a new instance reads the same record.
        auto reloaded = f.open();
        QCOMPARE(reloaded->sessions().size(), 1);
        const NarrationSession s = reloaded->sessions().constFirst();
        QCOMPARE(upper(s.id), id);
        QCOMPARE(s.text, text);
        QCOMPARE(s.timestamp, now);
        QCOMPARE(s.durationSeconds, 0.1);
    }

    void loadKeepsEntriesWithAudio_data()
    {
        QTest::addColumn<QStringList>("storedIds");
        QTest::addColumn<QList<bool>>("fileExists");
        QTest::addColumn<QStringList>("expectedTexts");

        const QStringList ids{QStringLiteral("3F2504E0-4F89-41D3-9A0C-0305E82C3301"),
                              QStringLiteral("5C1A7D3E-2B4F-4E6A-8D9C-0A1B2C3D4E5F"),
                              QStringLiteral("00000000-0000-0000-0000-000000000000")};
        QTest::newRow("all present") << ids << QList<bool>{true, true, true} << QStringList{"0", "1", "2"};
        QTest::newRow("middle removed") << ids << QList<bool>{true, false, true} << QStringList{"0", "2"};
        QTest::newRow("newest removed") << ids << QList<bool>{false, true, true} << QStringList{"1", "2"};
        QTest::newRow("all removed") << ids << QList<bool>{false, false, false} << QStringList{};
        QTest::newRow("lower-case id finds the upper-case file")
            << QStringList{ids[0].toLower(), ids[1]} << QList<bool>{true, false} << QStringList{"0"};
    }

    void loadKeepsEntriesWithAudio()
    {
        QFETCH(QStringList, storedIds);
        QFETCH(QList<bool>, fileExists);
        QFETCH(QStringList, expectedTexts);
        Fixture f;
        QVERIFY(QDir().mkpath(f.historyPath));
        QJsonArray array;
        for (int i = 0; i < storedIds.size(); ++i) {
            array.append(entryJson(storedIds[i], QString::number(i)));
            if (fileExists[i])
                QVERIFY(writeFile(f.historyPath + u'/' + storedIds[i].toUpper() + QStringLiteral(".pcm"),
                                  "\1\2"));
        }
        const QByteArray stored = QJsonDocument(array).toJson();
        f.storeRaw(HistoryManager::userDefaultsKey, stored);

        auto history = f.open();
        QStringList texts;
        for (const NarrationSession &s : history->sessions())
            texts.append(s.text);
        QCOMPARE(texts, expectedTexts);
        // Filtering is not written back at load.
        QCOMPARE(f.readRaw(HistoryManager::userDefaultsKey), QVariant(stored));
    }

    void corruptListLoadsEmpty_data()
    {
        QTest::addColumn<QVariant>("stored");

        const QString id = QStringLiteral("3F2504E0-4F89-41D3-9A0C-0305E82C3301");
        const QJsonObject good = entryJson(id, QStringLiteral("kept?"));
        auto json = [](const QJsonValue &v) {
            return QVariant(v.isArray() ? QJsonDocument(v.toArray()).toJson()
                                        : QJsonDocument(v.toObject()).toJson());
        };
        auto with = [&good](const QString &key, const QJsonValue &value) {
            QJsonObject o = good;
            if (value.isUndefined())
                o.remove(key);
            else
                o.insert(key, value);
            return o;
        };
        const QByteArray whole = QJsonDocument(QJsonArray{good}).toJson();

        QTest::newRow("not JSON") << QVariant(QByteArray("this is not json"));
        QTest::newRow("truncated") << QVariant(whole.left(whole.size() / 2));
        QTest::newRow("empty bytes") << QVariant(QByteArray());
        QTest::newRow("an object, not an array") << json(good);
        QTest::newRow("array of numbers") << json(QJsonArray{1, 2});
        QTest::newRow("missing voice")
            << json(QJsonArray{with(QStringLiteral("voice"), QJsonValue::Undefined)});
        QTest::newRow("id not a UUID")
            << json(QJsonArray{with(QStringLiteral("id"), QStringLiteral("entry-1"))});
        QTest::newRow("id in braces")
            << json(QJsonArray{with(QStringLiteral("id"), QString(u'{' + id + u'}'))});
        QTest::newRow("timestamp as text")
            << json(QJsonArray{with(QStringLiteral("timestamp"), QStringLiteral("760000000"))});
        QTest::newRow("duration as text")
            << json(QJsonArray{with(QStringLiteral("durationSeconds"), QStringLiteral("1.5"))});
        QTest::newRow("text null") << json(QJsonArray{with(QStringLiteral("text"), QJsonValue::Null)});
        QTest::newRow("one bad entry among good ones")
            << json(QJsonArray{good, with(QStringLiteral("timestamp"), QJsonValue::Null), good});
        QTest::newRow("valid JSON stored as text") << QVariant(QString::fromUtf8(whole));
        QTest::newRow("a number") << QVariant(42);
    }

    void corruptListLoadsEmpty()
    {
        QFETCH(QVariant, stored);
        Fixture f;
        // The entry's file exists, so only the stored value itself can make the list empty.
        QVERIFY(QDir().mkpath(f.historyPath));
        QVERIFY(
            writeFile(f.historyPath + QStringLiteral("/3F2504E0-4F89-41D3-9A0C-0305E82C3301.pcm"), "\1\2"));
        f.storeRaw(HistoryManager::userDefaultsKey, stored);

        auto history = f.open();
        QVERIFY(history->sessions().isEmpty());
        QCOMPARE(f.readRaw(HistoryManager::userDefaultsKey), stored);

        // The next save replaces the corrupt value.
        history->addSession(QStringLiteral("new"), QStringLiteral("marin"), 0.5, makePcm(10, 0));
        const QJsonArray array = f.storedArray();
        QCOMPARE(array.size(), 1);
        QCOMPARE(array[0][QStringLiteral("text")].toString(), QStringLiteral("new"));
    }

    void unwritableFolderLeavesHistoryUnchanged_data()
    {
        QTest::addColumn<int>("entriesBefore");
        QTest::addColumn<bool>("blockedFromTheStart");

        QTest::newRow("folder cannot be created") << 0 << true;
        QTest::newRow("folder replaced by a file, empty history") << 0 << false;
        QTest::newRow("folder replaced by a file, two entries") << 2 << false;
    }

    // Permissions do not stop root, so the folder is blocked by a regular file in its place.
    void unwritableFolderLeavesHistoryUnchanged()
    {
        QFETCH(int, entriesBefore);
        QFETCH(bool, blockedFromTheStart);
        Fixture f;
        if (blockedFromTheStart) {
            QVERIFY(writeFile(f.dir.filePath(QStringLiteral("Quillvox")), "not a folder"));
        }
        auto history = f.open();
        for (int i = 0; i < entriesBefore; ++i)
            history->addSession(QString::number(i), QStringLiteral("marin"), 0.1, makePcm(10, i));
        if (!blockedFromTheStart) {
            QVERIFY(QDir(f.historyPath).removeRecursively());
            QVERIFY(QDir().mkpath(f.dir.filePath(QStringLiteral("Quillvox"))));
            QVERIFY(writeFile(f.historyPath, "not a folder"));
        }
        const auto sessionsBefore = history->sessions();
        const QVariant storedBefore = f.readRaw(HistoryManager::userDefaultsKey);
        QSignalSpy changed(history.get(), &HistoryManager::sessionsChanged);

        history->addSession(QStringLiteral("lost"), QStringLiteral("marin"), 0.1, makePcm(10, 9));

        QCOMPARE(history->sessions(), sessionsBefore);
        QCOMPARE(changed.count(), 0);
        QCOMPARE(f.readRaw(HistoryManager::userDefaultsKey), storedBefore);
    }

    void deleteSession_data()
    {
        QTest::addColumn<int>("index"); // -1: an id that is not in the list
        QTest::addColumn<QStringList>("expectedTexts");

        QTest::newRow("newest") << 0 << QStringList{"b", "a"};
        QTest::newRow("middle") << 1 << QStringList{"c", "a"};
        QTest::newRow("oldest") << 2 << QStringList{"c", "b"};
        QTest::newRow("unknown id") << -1 << QStringList{"c", "b", "a"};
    }

    void deleteSession()
    {
        QFETCH(int, index);
        QFETCH(QStringList, expectedTexts);
        Fixture f;
        auto history = f.open();
        for (const char *t : {"a", "b", "c"})
            history->addSession(QString::fromLatin1(t), QStringLiteral("marin"), 0.1, makePcm(10, 0));
        const QUuid id = index < 0 ? QUuid::createUuid() : history->sessions()[index].id;
        QSignalSpy changed(history.get(), &HistoryManager::sessionsChanged);

        history->deleteSession(id);

        QStringList texts, storedTexts, files;
        for (const NarrationSession &s : history->sessions()) {
            texts.append(s.text);
            files.append(upper(s.id) + QStringLiteral(".pcm"));
        }
        for (const QJsonValue &v : f.storedArray())
            storedTexts.append(v[QStringLiteral("text")].toString());
        files.sort();
        QCOMPARE(texts, expectedTexts);
        QCOMPARE(storedTexts, expectedTexts);
        QCOMPARE(f.filesInHistory(), files);
        QCOMPARE(changed.count(), index < 0 ? 0 : 1);
    }

    void clearAllKeepsUnlistedFiles()
    {
        Fixture f;
        auto history = f.open();
        for (int i = 0; i < 3; ++i)
            history->addSession(QString::number(i), QStringLiteral("marin"), 0.1, makePcm(10, i));
        const QString orphan = QStringLiteral("0E2B1C1D-1111-4222-8333-444455556666.pcm");
        QVERIFY(writeFile(f.historyPath + u'/' + orphan, "\0\0"));
        QSignalSpy changed(history.get(), &HistoryManager::sessionsChanged);

        history->clearAll();

        QVERIFY(history->sessions().isEmpty());
        QCOMPARE(changed.count(), 1);
        QCOMPARE(f.filesInHistory(), QStringList{orphan});
        const auto stored = f.defaults->data(HistoryManager::userDefaultsKey);
        QVERIFY(stored);
        QVERIFY(QJsonDocument::fromJson(*stored).isArray());
        QVERIFY(QJsonDocument::fromJson(*stored).array().isEmpty());
    }

    void exportAudio_data()
    {
        QTest::addColumn<QString>("fileName");
        QTest::addColumn<int>("majorFormat");
        QTest::addColumn<bool>("lossless");
        QTest::addColumn<int>("frames");

        QTest::newRow("WAV") << "out.wav" << int(SF_FORMAT_WAV) << true << 24000 * 3 + 17;
        QTest::newRow("WAV, upper-case extension") << "OUT.WAV" << int(SF_FORMAT_WAV) << true << 5;
        QTest::newRow("FLAC") << "out.flac" << int(SF_FORMAT_FLAC) << true << 24000 * 3 + 17;
        QTest::newRow("Ogg Vorbis") << "out.ogg" << int(SF_FORMAT_OGG) << false << 24000 * 3 + 17;
        QTest::newRow("Ogg Vorbis as .oga") << "out.oga" << int(SF_FORMAT_OGG) << false << 24000;
    }

    void exportAudio()
    {
        QFETCH(QString, fileName);
        QFETCH(int, majorFormat);
        QFETCH(bool, lossless);
        QFETCH(int, frames);
        Fixture f;
        auto history = f.open();
        const QByteArray pcm = makePcm(frames, 1);
        history->addSession(QStringLiteral("export me"), QStringLiteral("marin"), frames / 24000.0, pcm);
        const QString target = f.dir.filePath(fileName);

        const auto result = history->exportAudio(history->sessions().constFirst().id, target);
        QVERIFY2(result.ok, qPrintable(result.errorString));
        QVERIFY(result.errorString.isEmpty());

        SF_INFO info{};
        SNDFILE *sf = sf_open(QFile::encodeName(target).constData(), SFM_READ, &info);
        QVERIFY2(sf, sf_strerror(nullptr));
        const auto closer = qScopeGuard([sf] { sf_close(sf); });
        QCOMPARE(info.format & SF_FORMAT_TYPEMASK, majorFormat);
        QCOMPARE(info.samplerate, 24000);
        QCOMPARE(info.channels, 1);

        QList<qint16> decoded(frames + 4096);
        sf_count_t total = 0;
        for (sf_count_t n; (n = sf_readf_short(sf, decoded.data() + total, 4096)) > 0;)
            total += n;
        QCOMPARE(total, sf_count_t(frames));
        if (lossless) {
            decoded.resize(frames);
            QCOMPARE(decoded, samplesOf(pcm));
        }
    }

    void exportFailures_data()
    {
        QTest::addColumn<QString>("fileName");
        QTest::addColumn<bool>("listed");
        QTest::addColumn<bool>("audioPresent");

        QTest::newRow("unknown extension") << "out.mp3" << true << true;
        QTest::newRow("no extension") << "out" << true << true;
        QTest::newRow("entry not in the history") << "out.wav" << false << true;
        QTest::newRow("audio file gone") << "out.flac" << true << false;
        QTest::newRow("destination folder missing") << "missing/out.wav" << true << true;
    }

    void exportFailures()
    {
        QFETCH(QString, fileName);
        QFETCH(bool, listed);
        QFETCH(bool, audioPresent);
        Fixture f;
        auto history = f.open();
        history->addSession(QStringLiteral("t"), QStringLiteral("marin"), 0.1, makePcm(2400, 0));
        const QUuid id = listed ? history->sessions().constFirst().id : QUuid::createUuid();
        if (!audioPresent)
            QVERIFY(QFile::remove(history->audioFile(id)));
        const QString target = f.dir.filePath(fileName);

        const auto result = history->exportAudio(id, target);
        QVERIFY(!result.ok);
        QVERIFY(!result.errorString.isEmpty());
        QVERIFY(!QFile::exists(target));
        // Nothing half-written is left next to the target either.
        QCOMPARE(QDir(f.dir.path()).entryList(QDir::Files).filter(QStringLiteral("out")), QStringList{});
    }
};

QTEST_GUILESS_MAIN(TestHistoryManager)
#include "tst_historymanager.moc"
