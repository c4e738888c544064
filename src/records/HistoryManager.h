// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "records/NarrationSession.h"

#include <QDateTime>
#include <QList>
#include <QObject>
#include <QString>
#include <QUuid>
#include <QVariantList>

#include <functional>

class UserDefaults;

// The last ten narrations with their audio, for replay without another speech request. The list
// lives in the user defaults; each entry's raw audio (16-bit LE mono, 24 kHz) lives in its own file.
// Every local failure is silent: a failed write drops the new entry, a failed deletion leaves an
// orphan file, a corrupt list loads as empty.
class HistoryManager : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QList<NarrationSession> sessions READ sessions WRITE setSessions NOTIFY sessionsChanged)
    // The same list as gadgets in a QVariantList, which QML reads without further registration.
    Q_PROPERTY(QVariantList sessionList READ sessionList NOTIFY sessionsChanged)

public:
    using Clock = std::function<QDateTime()>;

    struct ExportResult
    {
        bool ok = false;
        // Why the export failed, in words for the user interface; empty on success.
        QString errorString;
        explicit operator bool() const { return ok; }
    };

    static constexpr int maxSessions = 10;
    static inline const QString userDefaultsKey = QStringLiteral("narrationHistory");

    // Loads the list from `defaults`; audio files go to `historyDirectory`. `clock` stamps new
    // entries (the current time when empty).
    HistoryManager(UserDefaults &defaults, QString historyDirectory, Clock clock = {},
                   QObject *parent = nullptr);
    ~HistoryManager() override;

    // The standard user defaults and $XDG_DATA_HOME/Quillvox/History.
    static HistoryManager &shared();
    static QString standardHistoryDirectory();

    // Newest first.
    QList<NarrationSession> sessions() const { return _sessions; }
    // Publishes the list as given; saving is up to the caller (see deleteSession).
    void setSessions(const QList<NarrationSession> &sessions);
    QVariantList sessionList() const;

    // The audio folder, created (with its parents) when missing; a failure to create it is ignored.
    QString historyDirectory() const;
    // historyDirectory()/<UPPER-CASE-UUID>.pcm, whether or not the file exists.
    QString audioFile(const QUuid &id) const;

    // Records a finished narration: the audio file first, then the list, then the stored value.
    void addSession(const QString &text, const QString &voice, double durationSeconds,
                    const QByteArray &audioData);
    void deleteAudioFile(const QUuid &id) const;
    // Removes every entry with this id, its audio file, and saves.
    void deleteSession(const QUuid &id);
    void clearAll();
    void save();

    // Writes the entry's audio as WAV, FLAC or Ogg Vorbis, chosen by the extension of `path`
    // (.wav, .flac, .ogg or .oga). The target appears only when complete.
    ExportResult exportAudio(const QUuid &id, const QString &path) const;

Q_SIGNALS:
    void sessionsChanged();

private:
    void load();
    QDateTime now() const;

    UserDefaults &m_defaults;
    QString m_historyDirectory;
    Clock m_clock;
    QList<NarrationSession> _sessions;
};
