// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QHash>
#include <QObject>

class AudioEngine;

// The published audio levels of a narration: the tap is installed while something plays, and each
// level it measures is published raw and, while playing, smoothed for the waveform. The engine measures
// only while the tap is installed and someone watches the levels (a waveform on screen): nothing is
// measured or published for a hidden widget.
class LevelPublisher : public QObject
{
    Q_OBJECT
public:
    explicit LevelPublisher(AudioEngine &engine, QObject *parent = nullptr);

    void installTap();
    void removeTap();
    bool isTapInstalled() const { return m_isTapInstalled; }
    // `watcher` needs the levels, or no longer; one that is destroyed no longer does.
    void setWatching(QObject *watcher, bool watching);
    bool isWatched() const { return !m_watchers.isEmpty(); }

    void publish(float level, double timestamp, bool playing);

    float currentAudioLevel() const { return m_currentAudioLevel; }
    float rawAudioLevel() const { return m_rawAudioLevel; }
    double lastLevelTimestamp() const { return m_lastLevelTimestamp; }

Q_SIGNALS:
    void currentAudioLevelChanged();
    void rawAudioLevelChanged();
    void lastLevelTimestampChanged();

private:
    void applyTap();

    AudioEngine &m_engine;
    bool m_isTapInstalled = false;
    QHash<QObject *, QMetaObject::Connection> m_watchers;
    float m_currentAudioLevel = 0;
    float m_rawAudioLevel = 0;
    double m_lastLevelTimestamp = 0;
};
