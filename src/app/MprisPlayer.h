// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QVariantMap>

class HistoryManager;
class SpeechManager;

// Narration as an MPRIS2 media player, so that media keys, the desktop's media controls and playerctl
// drive it: org.mpris.MediaPlayer2 and its Player interface at /org/mpris/MediaPlayer2.
class MprisPlayer : public QObject
{
    Q_OBJECT
public:
    static constexpr double kMinimumRate = 0.5;
    static constexpr double kMaximumRate = 2.0;

    static constexpr int kTitleCharacters = 60;

    // `history` (may be null) names a replayed entry's text and voice.
    explicit MprisPlayer(SpeechManager &speech, const HistoryManager *history = nullptr,
                         QDBusConnection bus = QDBusConnection::sessionBus(), QObject *parent = nullptr);
    ~MprisPlayer() override;

    // "org.mpris.MediaPlayer2.quillvox" for the default profile; another profile adds MPRIS's instance
    // suffix, so that both show up side by side.
    static QString busNameFor(bool defaultProfile, qint64 pid);

    // Exports the object and takes `name` (busNameFor's); false when that fails (no session bus).
    bool registerOnBus(const QString &name);

    // The Player interface's properties as MPRIS names them, Position included.
    QVariantMap playerProperties() const;

    // MPRIS's PlaybackStatus: Playing while generating or playing, Paused while paused, Stopped with
    // nothing loaded and once played to the end (the audio stays loaded for a replay).
    static QString playbackStatus(bool isProcessing, bool isPlaying, bool hasContent, bool atEnd);

    SpeechManager &speech() const { return m_speech; }
    // A new one for every narration, replay and voice sample; NoTrack with nothing loaded.
    QString trackId() const;
    bool isAtEnd() const { return m_atEnd; }
    // Moves playback to `seconds` into what is loaded; past its end stops, as MPRIS asks of a player
    // with no next track. Nothing happens with nothing loaded.
    void seekTo(double seconds);

Q_SIGNALS:
    void seeked(qlonglong positionUs);

private:
    void queuePublish();
    void publishChanges();
    void onContentLoaded();
    void describeTrack();

    SpeechManager &m_speech;
    const HistoryManager *m_history;
    QDBusConnection m_bus;
    QString m_name;
    quint64 m_trackNumber = 0;
    bool m_trackIsNarration = false;
    bool m_trackDescribed = true;
    QString m_title;
    QString m_artist;
    bool m_atEnd = false;
    QVariantMap m_published; // what PropertiesChanged last announced
    bool m_publishQueued = false;
};
