// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/LevelPublisher.h"

#include "speech/AudioEngine.h"

LevelPublisher::LevelPublisher(AudioEngine &engine, QObject *parent)
    : QObject(parent)
    , m_engine(engine)
{}

void LevelPublisher::installTap()
{
    m_engine.setTapEnabled(true);
    m_isTapInstalled = true;
}

void LevelPublisher::removeTap()
{
    if (!m_isTapInstalled)
        return;
    m_engine.setTapEnabled(false);
    m_isTapInstalled = false;
}

void LevelPublisher::publish(float level, double timestamp, bool playing)
{
    if (m_rawAudioLevel != level) {
        m_rawAudioLevel = level;
        Q_EMIT rawAudioLevelChanged();
    }
    if (m_lastLevelTimestamp != timestamp) {
        m_lastLevelTimestamp = timestamp;
        Q_EMIT lastLevelTimestampChanged();
    }
    if (playing) {
        const float smoothed = level * 0.3f + m_currentAudioLevel * 0.7f;
        if (smoothed != m_currentAudioLevel) {
            m_currentAudioLevel = smoothed;
            Q_EMIT currentAudioLevelChanged();
        }
    }
}
