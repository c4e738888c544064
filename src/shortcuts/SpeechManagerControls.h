// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "shortcuts/NarrationControls.h"

class SpeechManager;

// The speech controller as the shortcuts see it.
class SpeechManagerControls final : public NarrationControls
{
public:
    explicit SpeechManagerControls(SpeechManager &speech);

    void speak(const QString &text) override;
    void togglePlayPause() override;
    void stop() override;
    void seekToFrame(qint64 frame) override;
    void cyclePlaybackSpeed() override;
    qint64 currentPlaybackFrame() const override;

private:
    SpeechManager &m_speech;
};
