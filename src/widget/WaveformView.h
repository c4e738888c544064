// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "speech/AudioLevelInterpolator.h"

#include <QColor>
#include <QList>
#include <QPointer>
#include <QQuickPaintedItem>
#include <QTimer>
#include <QtQml/qqmlregistration.h>

#include <array>

class SpeechManager;

// The widget's six live bars. They follow the measured levels through an AudioLevelInterpolator and
// redraw at most 60 times a second, and only while something moves: playing, generating, or bars still
// falling back to rest. Otherwise the view costs no wake-ups at all.
class WaveformView : public QQuickPaintedItem
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
    static constexpr int kFrameIntervalMs = 17; // at most 60 frames a second
    static constexpr std::array<double, kBarCount> kHeightWeights{0.9, 1.0, 0.95, 0.95, 1.0, 0.9};

    explicit WaveformView(QQuickItem *parent = nullptr);

    SpeechManager *speech() const { return m_speech; }
    void setSpeech(SpeechManager *speech);
    QList<QColor> barColors() const { return m_barColors; }
    void setBarColors(const QList<QColor> &colors);
    bool isRunning() const { return m_timeline.isActive(); }
    QList<qreal> barHeights() const { return {m_heights.begin(), m_heights.end()}; }

    // One display frame: `now` on the level clock (monotonic seconds), `wallSeconds` picks the row of
    // the variation table.
    void advanceFrame(double now, double wallSeconds);

    // Whether the timeline has anything to animate.
    static bool shouldRun(bool isPlaying, bool isProcessing, const std::array<float, kBarCount> &levels);
    // The process-wide table of variations, each in 0.85…1.0.
    static const std::array<std::array<double, kBarCount>, kVariationRows> &variationTable();
    static int variationRow(double wallSeconds);

    void paint(QPainter *painter) override;

Q_SIGNALS:
    void speechChanged();
    void barColorsChanged();
    void barHeightRangeChanged();
    void runningChanged();

private:
    void updateTimeline();
    void onPlayingChanged();

    QPointer<SpeechManager> m_speech;
    QList<QMetaObject::Connection> m_connections;
    AudioLevelInterpolator m_interpolator;
    QList<QColor> m_barColors;
    qreal m_minimumBarHeight = 3;
    qreal m_maximumBarHeight = 24;
    std::array<float, kBarCount> m_levels{};
    std::array<qreal, kBarCount> m_heights{};
    QTimer m_timeline;
};
