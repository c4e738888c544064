// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/AudioLevelInterpolator.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace {

constexpr std::array<float, 6> kSmoothingFactors{0.18f, 0.24f, 0.32f, 0.38f, 0.30f, 0.22f};
constexpr std::array<float, 6> kPhaseOffsets{0.00f, 0.02f, 0.04f, 0.01f, 0.03f, 0.05f};
constexpr std::array<float, 6> kFrequencyWeights{0.85f, 1.00f, 0.90f, 0.95f, 1.00f, 0.88f};
constexpr std::array<float, 6> kDecayMultipliers{0.70f, 0.85f, 1.00f, 1.00f, 0.90f, 0.75f};
constexpr float kDecayRate = 2.5f;
constexpr double kStalenessThreshold = 0.15;

} // namespace

void AudioLevelInterpolator::push(float level, double timestamp)
{
    m_lastUpdateTime = timestamp;
    m_levelHistory[std::size_t(m_historyIndex)] = level;
    m_historyIndex = (m_historyIndex + 1) % kHistorySize;
}

float AudioLevelInterpolator::barLevel(int index, bool isPlaying, double time)
{
    if (index < 0 || index >= kBarCount)
        return 0;
    const auto i = std::size_t(index);
    float &bar = m_barLevels[i];
    if (!isPlaying) {
        // One display frame's worth of decay per call, whatever the real frame interval.
        bar = std::max(0.0f, bar - kDecayMultipliers[i] * kDecayRate * 0.016f);
        return bar;
    }
    if (time - m_lastUpdateTime < kStalenessThreshold) {
        // historyIndex is the next slot to write, so lag 0 reads the oldest level and lag 1 the newest.
        const auto lag = qsizetype(kPhaseOffsets[i] * 60.0f);
        const auto slot = std::size_t(((m_historyIndex - lag) + kHistorySize) % kHistorySize);
        const float target = m_levelHistory[slot] * kFrequencyWeights[i];
        bar += kSmoothingFactors[i] * (target - bar);
        return bar;
    }
    bar = float((std::sin(0.4 * index + 2.4 * std::numbers::pi * time) + 1.0) * 0.5 * 0.15 + 0.2);
    return bar;
}

void AudioLevelInterpolator::reset()
{
    m_barLevels.fill(0);
    m_levelHistory.fill(0);
    m_historyIndex = 0;
    m_lastUpdateTime = 0;
}
