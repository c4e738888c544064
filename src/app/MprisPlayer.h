// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QVariantMap>

class SpeechManager;

// Narration as an MPRIS2 media player, so that media keys, the desktop's media controls and playerctl
// drive it: org.mpris.MediaPlayer2 and its Player interface at /org/mpris/MediaPlayer2.
class MprisPlayer : public QObject
{
    Q_OBJECT
public:
    static constexpr double kMinimumRate = 0.5;
    static constexpr double kMaximumRate = 2.0;

    explicit MprisPlayer(SpeechManager &speech, QDBusConnection bus = QDBusConnection::sessionBus(),
                         QObject *parent = nullptr);
    ~MprisPlayer() override;

    // "org.mpris.MediaPlayer2.quillvox" for the default profile; another profile adds MPRIS's instance
    // suffix, so that both show up side by side.
    static QString busNameFor(bool defaultProfile, qint64 pid);

    // Exports the object and takes `name` (busNameFor's); false when that fails (no session bus).
    bool registerOnBus(const QString &name);

    // The Player interface's properties as MPRIS names them, Position included.
    QVariantMap playerProperties() const;

    SpeechManager &speech() const { return m_speech; }
    QString trackId() const;
    // Moves playback to `seconds` into the narration; past its end stops, as MPRIS asks of a player
    // with no next track.
    void seekTo(double seconds);

Q_SIGNALS:
    void seeked(qlonglong positionUs);

private:
    void publishChanges();

    SpeechManager &m_speech;
    QDBusConnection m_bus;
    QString m_name;
    quint64 m_narrationNumber = 0;
    QVariantMap m_published; // what PropertiesChanged last announced
    bool m_publishQueued = false;
};
