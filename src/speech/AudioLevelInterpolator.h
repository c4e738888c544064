// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>

#include <array>

// Turns the stream of measured levels into six bar heights that move independently, read once per
// display frame. When levels stop arriving during playback the bars drift to a gentle idle wave.
class AudioLevelInterpolator : public QObject
{
    Q_OBJECT
public:
    static constexpr int kBarCount = 6;
    static constexpr int kHistorySize = 10;

    using QObject::QObject;

    // Records one measured level at `timestamp` (monotonic seconds).
    Q_INVOKABLE void push(float level, double timestamp);
    // Advances bar `index` by one display frame at time `time` and returns its level.
    Q_INVOKABLE float barLevel(int index, bool isPlaying, double time);
    Q_INVOKABLE void reset();

private:
    double m_lastUpdateTime = 0;
    std::array<float, kBarCount> m_barLevels{};
    std::array<float, kHistorySize> m_levelHistory{};
    qsizetype m_historyIndex = 0;
};
