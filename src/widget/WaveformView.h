// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "speech/AudioLevelInterpolator.h"

#include <QColor>
#include <QList>
#include <QPointer>
#include <QQuickItem>
#include <QTimer>
#include <QtQml/qqmlregistration.h>

#include <array>

class SpeechManager;

// The widget's six live bars. They follow the measured levels through an AudioLevelInterpolator, which
// moves them in steps of 1/60 s; they are drawn 60 times a second while they move and 30 times while
// they barely do, and only while something moves (playing, generating, bars still falling back to
// rest) in a window that is shown. Otherwise the view costs no wake-ups at all, and while it is not
// shown no levels are measured for it.
//
// Drawn by scene-graph nodes made once and changed in place: on the software renderer (the app's) one
// node paints the rounded bars straight into the window; elsewhere six rectangle nodes.
class WaveformView : public QQuickItem
{
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(SpeechManager *speech READ speech WRITE setSpeech NOTIFY speechChanged)
    Q_PROPERTY(QList<QColor> barColors READ barColors WRITE setBarColors NOTIFY barColorsChanged)
    Q_PROPERTY(qreal minimumBarHeight MEMBER m_minimumBarHeight NOTIFY barHeightRangeChanged)
    Q_PROPERTY(qreal maximumBarHeight MEMBER m_maximumBarHeight NOTIFY barHeightRangeChanged)
    Q_PROPERTY(bool running READ isRunning NOTIFY runningChanged)

public:
    static constexpr int kBarCount = AudioLevelInterpolator::kBarCount;
    static constexpr int kVariationRows = 12;
    static constexpr qreal kBarWidth = 2.5;
    static constexpr qreal kBarSpacing = 2.5;
    static constexpr qreal kBarRadius = 1.5;
    static constexpr double kStepSeconds = 1.0 / 60; // one step of the bars' motion
    static constexpr int kMovingIntervalMs = 16;     // 60 frames a second while the bars move
    static constexpr int kRestingIntervalMs = 33;    // 30 while they barely do
    // Below this per step (240 units a second, the whole range in about a tenth of a second) the bars
    // move slowly enough that 30 frames a second show it as smoothly; most of speech stays below it, so
    // a shown widget draws at 60 only on sharp onsets.
    static constexpr qreal kMovingPerStep = 4.0;
    static constexpr std::array<double, kBarCount> kHeightWeights{0.9, 1.0, 0.95, 0.95, 1.0, 0.9};

    explicit WaveformView(QQuickItem *parent = nullptr);
    ~WaveformView() override;

    SpeechManager *speech() const { return m_speech; }
    void setSpeech(SpeechManager *speech);
    QList<QColor> barColors() const { return m_barColors; }
    void setBarColors(const QList<QColor> &colors);
    bool isRunning() const { return m_timeline.isActive(); }
    int frameIntervalMs() const { return m_timeline.interval(); }
    QList<qreal> barHeights() const { return {m_heights.begin(), m_heights.end()}; }

    // One drawn frame: `now` on the level clock (monotonic seconds), `wallSeconds` picks the row of the
    // variation table. The bars move by as many 1/60 s steps as have passed since the previous frame
    // (one at least, four at most), so that they move alike at either frame rate.
    void advanceFrame(double now, double wallSeconds);

    // Whether the timeline has anything to animate.
    static bool shouldRun(bool isPlaying, bool isProcessing, const std::array<float, kBarCount> &levels);
    // The process-wide table of variations, each in 0.85…1.0.
    static const std::array<std::array<double, kBarCount>, kVariationRows> &variationTable();
    static int variationRow(double wallSeconds);

Q_SIGNALS:
    void speechChanged();
    void barColorsChanged();
    void barHeightRangeChanged();
    void runningChanged();

protected:
    QSGNode *updatePaintNode(QSGNode *node, UpdatePaintNodeData *data) override;
    void itemChange(ItemChange change, const ItemChangeData &value) override;

private:
    void updateTimeline();
    void onPlayingChanged();
    void onLevel();
    void pushDueLevels(double now);
    bool isShown() const;
    std::array<QRectF, kBarCount> barRects() const;

    QPointer<SpeechManager> m_speech;
    QList<QMetaObject::Connection> m_connections;
    QMetaObject::Connection m_windowVisibility;
    AudioLevelInterpolator m_interpolator;
    QList<QColor> m_barColors;
    qreal m_minimumBarHeight = 3;
    qreal m_maximumBarHeight = 24;
    std::array<float, kBarCount> m_levels{};
    std::array<qreal, kBarCount> m_heights{};
    double m_lastFrame = -1; // level clock of the previous frame; none while stopped
    // Levels stamped with the time they will be heard (the output buffers ahead), held until then.
    struct PendingLevel
    {
        float level;
        double timestamp;
    };
    QList<PendingLevel> m_pendingLevels;
    QTimer m_timeline;
};
