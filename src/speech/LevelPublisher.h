// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>

class AudioEngine;

// The published audio levels of a narration: the engine's tap is on only while something plays, and
// each level it measures is published raw and, while playing, smoothed for the waveform.
class LevelPublisher : public QObject
{
    Q_OBJECT
public:
    explicit LevelPublisher(AudioEngine &engine, QObject *parent = nullptr);

    void installTap();
    void removeTap();
    bool isTapInstalled() const { return m_isTapInstalled; }

    void publish(float level, double timestamp, bool playing);

    float currentAudioLevel() const { return m_currentAudioLevel; }
    float rawAudioLevel() const { return m_rawAudioLevel; }
    double lastLevelTimestamp() const { return m_lastLevelTimestamp; }

Q_SIGNALS:
    void currentAudioLevelChanged();
    void rawAudioLevelChanged();
    void lastLevelTimestampChanged();

private:
    AudioEngine &m_engine;
    bool m_isTapInstalled = false;
    float m_currentAudioLevel = 0;
    float m_rawAudioLevel = 0;
    double m_lastLevelTimestamp = 0;
};
