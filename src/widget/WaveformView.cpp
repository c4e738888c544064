// SPDX-License-Identifier: GPL-3.0-or-later
#include "widget/WaveformView.h"

#include "speech/AudioEngine.h"
#include "speech/SpeechManager.h"

#include <QDateTime>
#include <QPainter>
#include <QQuickWindow>
#include <QRandomGenerator>
#include <QSGRectangleNode>
#include <QSGRenderNode>
#include <QSGRendererInterface>

#include <cmath>

namespace {

using BarRects = std::array<QRectF, WaveformView::kBarCount>;
using BarColors = std::array<QColor, WaveformView::kBarCount>;

// The software renderer draws this node with its own painter, straight into the window: rounded bars
// without a texture in between.
class PaintedBarsNode final : public QSGRenderNode
{
public:
    explicit PaintedBarsNode(QQuickWindow *window)
        : m_window(window)
    {}

    void set(const BarRects &rects, const BarColors &colors, const QRectF &bounds)
    {
        m_rects = rects;
        m_colors = colors;
        m_bounds = bounds;
        markDirty(DirtyMaterial);
    }

    void render(const RenderState *state) override
    {
        auto *painter = static_cast<QPainter *>(
            m_window->rendererInterface()->getResource(m_window, QSGRendererInterface::PainterResource));
        if (!painter)
            return;
        painter->save();
        // The clip is in window coordinates: before the transform.
        if (const QRegion *clip = state->clipRegion(); clip && !clip->isEmpty())
            painter->setClipRegion(*clip, Qt::ReplaceClip);
        painter->setTransform(matrix()->toTransform());
        painter->setOpacity(inheritedOpacity());
        painter->setRenderHint(QPainter::Antialiasing);
        painter->setPen(Qt::NoPen);
        for (int i = 0; i < WaveformView::kBarCount; ++i) {
            painter->setBrush(m_colors[i]);
            painter->drawRoundedRect(m_rects[i], WaveformView::kBarRadius, WaveformView::kBarRadius);
        }
        painter->restore();
    }

    StateFlags changedStates() const override { return {}; }
    RenderingFlags flags() const override { return BoundedRectRendering; }
    QRectF rect() const override { return m_bounds; }

private:
    QQuickWindow *m_window;
    BarRects m_rects{};
    BarColors m_colors{};
    QRectF m_bounds;
};

} // namespace

WaveformView::WaveformView(QQuickItem *parent)
    : QQuickItem(parent)
{
    setFlag(ItemHasContents);
    m_timeline.setInterval(kRestingIntervalMs);
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

WaveformView::~WaveformView() = default;

void WaveformView::setSpeech(SpeechManager *speech)
{
    if (m_speech == speech)
        return;
    for (const QMetaObject::Connection &c : std::as_const(m_connections))
        disconnect(c);
    m_connections.clear();
    if (m_speech)
        m_speech->watchLevels(this, false);
    m_speech = speech;
    m_pendingLevels.clear();
    m_interpolator.reset();
    if (speech) {
        m_connections
            << connect(speech, &SpeechManager::isPlayingChanged, this, &WaveformView::onPlayingChanged)
            << connect(speech, &SpeechManager::isProcessingChanged, this, &WaveformView::updateTimeline)
            << connect(speech, &SpeechManager::lastLevelTimestampChanged, this, &WaveformView::onLevel);
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

void WaveformView::onLevel()
{
    m_pendingLevels.append({m_speech->rawAudioLevel(), m_speech->lastLevelTimestamp()});
    pushDueLevels(AudioEngine::steadySeconds());
}

void WaveformView::pushDueLevels(double now)
{
    qsizetype due = 0;
    for (; due < m_pendingLevels.size() && m_pendingLevels[due].timestamp <= now; ++due)
        m_interpolator.push(m_pendingLevels[due].level, m_pendingLevels[due].timestamp);
    m_pendingLevels.remove(0, due);
}

void WaveformView::advanceFrame(double now, double wallSeconds)
{
    pushDueLevels(now);
    const bool playing = m_speech && m_speech->isPlaying();
    const int steps =
        m_lastFrame < 0 ? 1 : std::clamp(int(std::lround((now - m_lastFrame) / kStepSeconds)), 1, 4);
    m_lastFrame = now;
    const std::array<double, kBarCount> &variation = variationTable()[variationRow(wallSeconds)];
    qreal moved = 0;
    for (int i = 0; i < kBarCount; ++i) {
        for (int step = steps - 1; step >= 0; --step)
            m_levels[i] = m_interpolator.barLevel(i, playing, now - step * kStepSeconds);
        const double factor = std::min(1.0, variation[i] * m_levels[i] * kHeightWeights[i]);
        const qreal height = m_minimumBarHeight + factor * (m_maximumBarHeight - m_minimumBarHeight);
        moved = std::max(moved, std::abs(height - m_heights[i]));
        m_heights[i] = height;
    }
    if (moved > 0)
        update();
    m_timeline.setInterval(moved >= kMovingPerStep * steps ? kMovingIntervalMs : kRestingIntervalMs);
    updateTimeline();
}

void WaveformView::onPlayingChanged()
{
    if (!m_speech->isPlaying()) {
        m_pendingLevels.clear();
        m_interpolator.reset();
        m_levels.fill(0);
        m_heights.fill(m_minimumBarHeight);
        update();
    }
    updateTimeline();
}

bool WaveformView::isShown() const
{
    // Outside a window (as in tests) the item stands for itself.
    return isVisible() && (!window() || window()->isVisible());
}

void WaveformView::itemChange(ItemChange change, const ItemChangeData &value)
{
    if (change == ItemSceneChange) {
        disconnect(m_windowVisibility);
        if (value.window)
            m_windowVisibility =
                connect(value.window, &QWindow::visibleChanged, this, &WaveformView::updateTimeline);
    }
    QQuickItem::itemChange(change, value);
    if (change == ItemSceneChange || change == ItemVisibleHasChanged)
        updateTimeline();
}

void WaveformView::updateTimeline()
{
    if (m_speech)
        m_speech->watchLevels(this, isShown());
    const bool run =
        m_speech && isShown() && shouldRun(m_speech->isPlaying(), m_speech->isProcessing(), m_levels);
    if (run == m_timeline.isActive())
        return;
    if (run) {
        m_timeline.setInterval(kRestingIntervalMs);
        m_timeline.start();
    } else {
        m_timeline.stop();
        m_lastFrame = -1;
    }
    Q_EMIT runningChanged();
}

std::array<QRectF, WaveformView::kBarCount> WaveformView::barRects() const
{
    BarRects rects;
    const qreal rowWidth = kBarCount * kBarWidth + (kBarCount - 1) * kBarSpacing;
    qreal x = (width() - rowWidth) / 2;
    for (int i = 0; i < kBarCount; ++i) {
        const qreal h = m_heights[i];
        rects[i] = QRectF(x, (height() - h) / 2, kBarWidth, h);
        x += kBarWidth + kBarSpacing;
    }
    return rects;
}

QSGNode *WaveformView::updatePaintNode(QSGNode *node, UpdatePaintNodeData *)
{
    const BarRects rects = barRects();
    BarColors colors;
    for (int i = 0; i < kBarCount; ++i)
        colors[i] = i < m_barColors.size() ? m_barColors[i] : QColor(Qt::white);

    if (window()->rendererInterface()->graphicsApi() == QSGRendererInterface::Software) {
        auto *bars = static_cast<PaintedBarsNode *>(node);
        if (!bars)
            bars = new PaintedBarsNode(window());
        // Only the bars themselves are repainted, not the whole well around them.
        QRectF bounds;
        for (const QRectF &rect : rects)
            bounds |= rect;
        bars->set(rects, colors, bounds);
        return bars;
    }
    // Other renderers: plain rectangles (their corners would need geometry of our own).
    if (!node) {
        node = new QSGNode;
        for (int i = 0; i < kBarCount; ++i)
            node->appendChildNode(window()->createRectangleNode());
    }
    QSGNode *child = node->firstChild();
    for (int i = 0; i < kBarCount; ++i, child = child->nextSibling()) {
        auto *bar = static_cast<QSGRectangleNode *>(child);
        bar->setRect(rects[i]);
        bar->setColor(colors[i]);
    }
    return node;
}
