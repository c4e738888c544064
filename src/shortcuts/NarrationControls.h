// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <QtGlobal>

// What the shortcuts drive in the speech controller.
class NarrationControls
{
public:
    virtual ~NarrationControls() = default;
    virtual void speak(const QString &text) = 0;
    virtual void togglePlayPause() = 0;
    virtual void stop() = 0;
    // Targets outside the narration are clamped by the controller.
    virtual void seekToFrame(qint64 frame) = 0;
    virtual void cyclePlaybackSpeed() = 0;
    // The narration frame being heard now.
    virtual qint64 currentPlaybackFrame() const = 0;
};

// Controls that drive nothing: for shortcut views shown without a narration to control.
class IdleNarrationControls final : public NarrationControls
{
public:
    void speak(const QString &) override {}
    void togglePlayPause() override {}
    void stop() override {}
    void seekToFrame(qint64) override {}
    void cyclePlaybackSpeed() override {}
    qint64 currentPlaybackFrame() const override { return 0; }
};
