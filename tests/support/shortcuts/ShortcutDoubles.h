// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "shortcuts/NarrationControls.h"
#include "speech/NarrationServices.h"

#include <QStringList>

// The speech side of the shortcuts, recording what the shortcuts asked of it.
class RecordingControls final : public NarrationControls
{
public:
    void speak(const QString &text) override { calls.append(u"speak:" + text); }
    void togglePlayPause() override { calls.append(QStringLiteral("togglePlayPause")); }
    void stop() override { calls.append(QStringLiteral("stop")); }
    void seekToFrame(qint64 frame) override { calls.append(u"seek:" + QString::number(frame)); }
    void cyclePlaybackSpeed() override { calls.append(QStringLiteral("cyclePlaybackSpeed")); }
    qint64 currentPlaybackFrame() const override { return frame; }

    QStringList calls;
    qint64 frame = 0;
};

// A selection whose text the test sets.
class ScriptedSelection final : public SelectionSource
{
public:
    bool isProcessTrusted(bool) override { return true; }
    std::optional<QString> captureSelectedText() override
    {
        ++captures;
        return text;
    }

    std::optional<QString> text;
    int captures = 0;
};
