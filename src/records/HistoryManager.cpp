// SPDX-License-Identifier: GPL-3.0-or-later
#include "records/HistoryManager.h"

#include "core/UserDefaults.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>
#include <QVariant>
#include <QtEndian>

#include <sndfile.h>

#include <algorithm>
#include <array>
#include <memory>
#include <optional>

namespace {

constexpr int kSampleRateHz = 24000;

std::optional<int> sndfileFormatFor(const QString &path)
{
    const QString suffix = QFileInfo(path).suffix().toLower();
    if (suffix == u"wav")
        return SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    if (suffix == u"flac")
        return SF_FORMAT_FLAC | SF_FORMAT_PCM_16;
    if (suffix == u"ogg" || suffix == u"oga")
        return SF_FORMAT_OGG | SF_FORMAT_VORBIS;
    return std::nullopt;
}

struct SndfileCloser
{
    void operator()(SNDFILE *f) const { sf_close(f); }
};

} // namespace

HistoryManager::HistoryManager(UserDefaults &defaults, QString historyDirectory, Clock clock, QObject *parent)
    : QObject(parent)
    , m_defaults(defaults)
    , m_historyDirectory(std::move(historyDirectory))
    , m_clock(std::move(clock))
{
    load();
}

HistoryManager::~HistoryManager() = default;

HistoryManager &HistoryManager::shared()
{
    static HistoryManager instance(UserDefaults::standard(), standardHistoryDirectory());
    return instance;
}

QString HistoryManager::standardHistoryDirectory()
{
    const QString base = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    // Without a home there is nowhere to keep anything; carrying on would scatter files in the
    // working directory.
    if (base.isEmpty())
        qFatal("No user data folder (is HOME set?)");
    return base + QStringLiteral("/Quillvox/History");
}

void HistoryManager::setSessions(const QList<NarrationSession> &sessions)
{
    if (_sessions == sessions)
        return;
    _sessions = sessions;
    Q_EMIT sessionsChanged();
}

QVariantList HistoryManager::sessionList() const
{
    QVariantList list;
    list.reserve(_sessions.size());
    for (const NarrationSession &s : _sessions)
        list.append(QVariant::fromValue(s));
    return list;
}

QString HistoryManager::historyDirectory() const
{
    if (!QFileInfo::exists(m_historyDirectory))
        QDir().mkpath(m_historyDirectory);
    return m_historyDirectory;
}

QString HistoryManager::audioFile(const QUuid &id) const
{
    return historyDirectory() + u'/' + NarrationSession::canonicalId(id) + QStringLiteral(".pcm");
}

void HistoryManager::addSession(const QString &text, const QString &voice, double durationSeconds,
                                const QByteArray &audioData)
{
    NarrationSession session;
    session.id = QUuid::createUuid();
    session.text = text;
    session.voice = voice;
    session.timestamp = now();
    session.durationSeconds = durationSeconds;

    // Written under a temporary name and renamed, so that a crash never leaves a listed entry with
    // half a file; only a complete file lets the entry into the list.
    QSaveFile file(audioFile(session.id));
    if (!file.open(QIODevice::WriteOnly) || file.write(audioData) != audioData.size() || !file.commit())
        return;

    _sessions.prepend(session);
    while (_sessions.size() > maxSessions)
        deleteAudioFile(_sessions.takeLast().id);
    save();
    Q_EMIT sessionsChanged();
}

void HistoryManager::deleteAudioFile(const QUuid &id) const
{
    QFile::remove(audioFile(id));
}

void HistoryManager::deleteSession(const QUuid &id)
{
    const auto removed = _sessions.removeIf([&id](const NarrationSession &s) { return s.id == id; });
    deleteAudioFile(id);
    save();
    if (removed > 0)
        Q_EMIT sessionsChanged();
}

void HistoryManager::clearAll()
{
    for (const NarrationSession &s : std::as_const(_sessions))
        deleteAudioFile(s.id);
    const bool changed = !_sessions.isEmpty();
    _sessions.clear();
    save();
    if (changed)
        Q_EMIT sessionsChanged();
}

void HistoryManager::save()
{
    m_defaults.setData(userDefaultsKey, NarrationSession::encodeList(_sessions));
}

HistoryManager::ExportResult HistoryManager::exportAudio(const QUuid &id, const QString &path) const
{
    const auto format = sndfileFormatFor(path);
    if (!format) {
        return {false, tr("Quillvox can save audio as .wav, .flac or .ogg, not as “%1”.")
                           .arg(QFileInfo(path).fileName())};
    }
    const bool listed = std::any_of(_sessions.cbegin(), _sessions.cend(),
                                    [&id](const NarrationSession &s) { return s.id == id; });
    if (!listed)
        return {false, tr("This narration is no longer in the history.")};

    QFile in(audioFile(id));
    if (!in.open(QIODevice::ReadOnly))
        return {false, tr("The audio of this narration is missing: %1").arg(in.errorString())};

    QSaveFile out(path);
    if (!out.open(QIODevice::WriteOnly))
        return {false, tr("Could not write “%1”: %2").arg(path, out.errorString())};

    SF_INFO info{};
    info.samplerate = kSampleRateHz;
    info.channels = 1;
    info.format = *format;
    // libsndfile writes through the descriptor of QSaveFile's temporary file, which QSaveFile then
    // renames over the target: an interrupted export leaves no half-written file behind.
    std::unique_ptr<SNDFILE, SndfileCloser> sf(sf_open_fd(out.handle(), SFM_WRITE, &info, SF_FALSE));
    if (!sf)
        return {false, tr("Could not write “%1”: %2").arg(path, QString::fromUtf8(sf_strerror(nullptr)))};

    // The audio goes through in pieces; a long narration is never held in memory as a whole.
    constexpr qsizetype kChunkBytes = 65536;
    std::array<char, kChunkBytes> bytes;
    std::array<short, kChunkBytes / 2> samples;
    qsizetype pending = 0; // bytes at the front of `bytes` not yet converted (half a sample at most)
    for (;;) {
        const qint64 got = in.read(bytes.data() + pending, kChunkBytes - pending);
        if (got <= 0)
            break;
        const qsizetype available = pending + qsizetype(got);
        const qsizetype frames = available / 2;
        for (qsizetype i = 0; i < frames; ++i)
            samples[size_t(i)] = qFromLittleEndian<qint16>(bytes.data() + 2 * i);
        if (sf_write_short(sf.get(), samples.data(), frames) != frames)
            return {false,
                    tr("Could not write “%1”: %2").arg(path, QString::fromUtf8(sf_strerror(sf.get())))};
        pending = available % 2;
        if (pending)
            bytes[0] = bytes[size_t(available - 1)];
    }
    // A trailing odd byte is half a sample, nothing that could be played: it is dropped.
    if (in.error() != QFileDevice::NoError)
        return {false, tr("Could not read the audio of this narration: %1").arg(in.errorString())};

    // Closing writes the final headers (WAV sizes, FLAC stream info, the last Ogg page).
    if (const int error = sf_close(sf.release()); error != SF_ERR_NO_ERROR)
        return {false, tr("Could not write “%1”: %2").arg(path, QString::fromUtf8(sf_error_number(error)))};
    if (!out.commit())
        return {false, tr("Could not write “%1”: %2").arg(path, out.errorString())};
    return {true, {}};
}

void HistoryManager::load()
{
    const auto stored = m_defaults.data(userDefaultsKey);
    if (!stored)
        return;
    // A corrupt value is left in place; the next save replaces it.
    const auto decoded = NarrationSession::decodeList(*stored);
    if (!decoded)
        return;
    // Not written back: the next save stores the filtered list.
    for (const NarrationSession &s : *decoded) {
        if (QFileInfo::exists(audioFile(s.id)))
            _sessions.append(s);
    }
}

QDateTime HistoryManager::now() const
{
    return m_clock ? m_clock() : QDateTime::currentDateTimeUtc();
}
