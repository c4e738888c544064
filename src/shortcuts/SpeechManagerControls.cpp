// SPDX-License-Identifier: GPL-3.0-or-later
#include "shortcuts/SpeechManagerControls.h"

#include "speech/SpeechManager.h"

SpeechManagerControls::SpeechManagerControls(SpeechManager &speech)
    : m_speech(speech)
{}

void SpeechManagerControls::speak(const QString &text)
{
    m_speech.speak(text);
}

void SpeechManagerControls::togglePlayPause()
{
    m_speech.togglePlayPause();
}

void SpeechManagerControls::stop()
{
    m_speech.stop();
}

void SpeechManagerControls::seekToFrame(qint64 frame)
{
    m_speech.seekToFrame(frame);
}

void SpeechManagerControls::cyclePlaybackSpeed()
{
    m_speech.cyclePlaybackSpeed();
}

qint64 SpeechManagerControls::currentPlaybackFrame() const
{
    return m_speech.currentPlaybackFrame();
}
