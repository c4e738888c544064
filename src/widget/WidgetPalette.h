// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "speech/WidgetStyle.h"

#include <QColor>
#include <QList>
#include <QObject>

#include <array>

// Every colour the widget draws, from the chosen theme and appearance: the one place QML reads them.
class WidgetPalette
{
    Q_GADGET
    Q_PROPERTY(QList<QColor> barColors MEMBER barColors)
    Q_PROPERTY(QList<QColor> themeColors MEMBER themeColors)
    Q_PROPERTY(bool dark MEMBER dark)
    Q_PROPERTY(QColor panel MEMBER panel)
    Q_PROPERTY(QColor panelBorder MEMBER panelBorder)
    Q_PROPERTY(QColor waveformWell MEMBER waveformWell)
    Q_PROPERTY(QColor foreground MEMBER foreground)
    Q_PROPERTY(QColor secondaryForeground MEMBER secondaryForeground)
    Q_PROPERTY(QColor controlHover MEMBER controlHover)
    Q_PROPERTY(QColor controlPressed MEMBER controlPressed)
    Q_PROPERTY(QColor track MEMBER track)
    Q_PROPERTY(QColor accent MEMBER accent)
    Q_PROPERTY(QColor playButton MEMBER playButton)
    Q_PROPERTY(QColor playSymbol MEMBER playSymbol)
    Q_PROPERTY(QColor warning MEMBER warning)

public:
    static constexpr int kBarCount = 6;

    static WidgetPalette make(WidgetTheme theme, WidgetAppearance appearance);

    // The theme's three colours, in gradient order.
    static std::array<QColor, 3> themeColorsOf(WidgetTheme theme);
    // `count` bar colours blended along the theme's colours: the first bar has colour 1, the last colour 3.
    static QList<QColor> barColorsOf(WidgetTheme theme, int count = kBarCount);

    QList<QColor> barColors;
    QList<QColor> themeColors;
    bool dark = true;
    QColor panel;
    QColor panelBorder;
    QColor waveformWell;
    QColor foreground;
    QColor secondaryForeground;
    QColor controlHover;
    QColor controlPressed;
    QColor track;
    QColor accent;
    QColor playButton;
    QColor playSymbol;
    QColor warning;

    bool operator==(const WidgetPalette &) const = default;
};
Q_DECLARE_METATYPE(WidgetPalette)

// The widget's texts that are formats of published values.
namespace WidgetFormat {
// "m:ss" of the rounded absolute seconds; minutes are not capped (3,600 s is "60:00").
QString timeLabel(double seconds);
// "1.0x"
QString speedLabel(double speed);
} // namespace WidgetFormat
