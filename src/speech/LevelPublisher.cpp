// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/LevelPublisher.h"

#include "speech/AudioEngine.h"

LevelPublisher::LevelPublisher(AudioEngine &engine, QObject *parent)
    : QObject(parent)
    , m_engine(engine)
{}

void LevelPublisher::installTap()
{
    m_isTapInstalled = true;
    applyTap();
}

void LevelPublisher::removeTap()
{
    if (!m_isTapInstalled)
        return;
    m_isTapInstalled = false;
    applyTap();
}

void LevelPublisher::setWatching(QObject *watcher, bool watching)
{
    if (watching == m_watchers.contains(watcher))
        return;
    if (watching)
        m_watchers.insert(watcher, connect(watcher, &QObject::destroyed, this,
                                           [this, watcher] { setWatching(watcher, false); }));
    else
        disconnect(m_watchers.take(watcher));
    applyTap();
}

void LevelPublisher::applyTap()
{
    const bool measuring = m_isTapInstalled && isWatched();
    if (measuring != m_engine.isTapEnabled())
        m_engine.setTapEnabled(measuring);
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
