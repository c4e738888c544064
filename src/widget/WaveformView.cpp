// SPDX-License-Identifier: GPL-3.0-or-later
#include "widget/WaveformView.h"

#include "speech/AudioEngine.h"
#include "speech/SpeechManager.h"

#include <QDateTime>
#include <QPainter>
#include <QPainterPath>
#include <QRandomGenerator>

#include <cmath>

WaveformView::WaveformView(QQuickItem *parent)
    : QQuickPaintedItem(parent)
{
    setAntialiasing(true);
    m_timeline.setInterval(kFrameIntervalMs);
    m_timeline.setTimerType(Qt::PreciseTimer);
    connect(&m_timeline, &QTimer::timeout, this, [this] {
        advanceFrame(AudioEngine::steadySeconds(), double(QDateTime::currentMSecsSinceEpoch()) / 1000.0);
    });
    connect(this, &WaveformView::barHeightRangeChanged, this, [this] {
        m_heights.fill(m_minimumBarHeight);
        update();
    });
    m_heights.fill(m_minimumBarHeight);
}

void WaveformView::setSpeech(SpeechManager *speech)
{
    if (m_speech == speech)
        return;
    for (const QMetaObject::Connection &c : std::as_const(m_connections))
        disconnect(c);
    m_connections.clear();
    m_speech = speech;
    m_interpolator.reset();
    if (speech) {
        m_connections << connect(speech, &SpeechManager::isPlayingChanged, this,
                                 &WaveformView::onPlayingChanged)
                      << connect(speech, &SpeechManager::isProcessingChanged, this,
                                 &WaveformView::updateTimeline)
                      << connect(speech, &SpeechManager::lastLevelTimestampChanged, this, [this] {
                             m_interpolator.push(m_speech->rawAudioLevel(), m_speech->lastLevelTimestamp());
                         });
    }
    updateTimeline();
    Q_EMIT speechChanged();
}

void WaveformView::setBarColors(const QList<QColor> &colors)
{
    if (m_barColors == colors)
        return;
    m_barColors = colors;
    update();
    Q_EMIT barColorsChanged();
}

bool WaveformView::shouldRun(bool isPlaying, bool isProcessing, const std::array<float, kBarCount> &levels)
{
    return isPlaying || isProcessing ||
           std::any_of(levels.begin(), levels.end(), [](float level) { return level > 0.01f; });
}

const std::array<std::array<double, WaveformView::kBarCount>, WaveformView::kVariationRows> &
WaveformView::variationTable()
{
    static const auto table = [] {
        std::array<std::array<double, kBarCount>, kVariationRows> rows{};
        for (auto &row : rows)
            for (double &v : row)
                v = 0.85 + 0.15 * QRandomGenerator::global()->generateDouble();
        return rows;
    }();
    return table;
}

int WaveformView::variationRow(double wallSeconds)
{
    return int(std::fmod(std::trunc(wallSeconds * 3.3), double(kVariationRows)));
}

void WaveformView::advanceFrame(double now, double wallSeconds)
{
    const bool playing = m_speech && m_speech->isPlaying();
    const std::array<double, kBarCount> &variation = variationTable()[variationRow(wallSeconds)];
    for (int i = 0; i < kBarCount; ++i) {
        m_levels[i] = m_interpolator.barLevel(i, playing, now);
        const double factor = std::min(1.0, variation[i] * m_levels[i] * kHeightWeights[i]);
        m_heights[i] = m_minimumBarHeight + factor * (m_maximumBarHeight - m_minimumBarHeight);
    }
    update();
    updateTimeline();
}

void WaveformView::onPlayingChanged()
{
    if (!m_speech->isPlaying()) {
        m_interpolator.reset();
        m_levels.fill(0);
        m_heights.fill(m_minimumBarHeight);
        update();
    }
    updateTimeline();
}

void WaveformView::updateTimeline()
{
    const bool run = m_speech && shouldRun(m_speech->isPlaying(), m_speech->isProcessing(), m_levels);
    if (run == m_timeline.isActive())
        return;
    if (run)
        m_timeline.start();
    else
        m_timeline.stop();
    Q_EMIT runningChanged();
}

void WaveformView::paint(QPainter *painter)
{
    painter->setRenderHint(QPainter::Antialiasing);
    painter->setPen(Qt::NoPen);
    const qreal rowWidth = kBarCount * kBarWidth + (kBarCount - 1) * kBarSpacing;
    qreal x = (width() - rowWidth) / 2;
    for (int i = 0; i < kBarCount; ++i) {
        const qreal h = m_heights[i];
        painter->setBrush(i < m_barColors.size() ? m_barColors[i] : QColor(Qt::white));
        painter->drawRoundedRect(QRectF(x, (height() - h) / 2, kBarWidth, h), kBarRadius, kBarRadius);
        x += kBarWidth + kBarSpacing;
    }
}
