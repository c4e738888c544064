// SPDX-License-Identifier: GPL-3.0-or-later
#include "widget/WidgetPalette.h"

#include <cmath>

namespace {

QColor rgb(double r, double g, double b)
{
    return QColor::fromRgbF(float(r), float(g), float(b));
}

QColor grey(double level)
{
    return rgb(level, level, level);
}

// Dark ink on a light fill, white on a dark one (relative luminance, sRGB approximated).
QColor inkOn(const QColor &fill)
{
    const double luminance = 0.2126 * fill.redF() + 0.7152 * fill.greenF() + 0.0722 * fill.blueF();
    return luminance > 0.55 ? QColor(0x1c, 0x1c, 0x21) : QColor(Qt::white);
}

} // namespace

std::array<QColor, 3> WidgetPalette::themeColorsOf(WidgetTheme theme)
{
    switch (theme) {
    case WidgetTheme::Default:
        return {grey(1.0), grey(0.8), grey(0.6)};
    case WidgetTheme::Aurora:
        return {rgb(0.0, 0.9, 0.9), rgb(0.2, 0.8, 0.5), rgb(0.0, 0.7, 0.6)};
    case WidgetTheme::Sunset:
        return {rgb(1.0, 0.5, 0.2), rgb(1.0, 0.4, 0.5), rgb(1.0, 0.6, 0.5)};
    case WidgetTheme::Ocean:
        return {rgb(0.1, 0.3, 0.8), rgb(0.0, 0.6, 0.7), rgb(0.3, 0.8, 0.9)};
    case WidgetTheme::Violet:
        return {rgb(0.6, 0.2, 0.9), rgb(0.9, 0.3, 0.7), rgb(1.0, 0.5, 0.7)};
    case WidgetTheme::Amber:
        return {rgb(1.0, 0.75, 0.2), rgb(1.0, 0.55, 0.2), rgb(1.0, 0.85, 0.4)};
    case WidgetTheme::Mint:
        return {rgb(0.5, 0.95, 0.75), rgb(0.2, 0.8, 0.7), rgb(0.3, 0.9, 0.9)};
    case WidgetTheme::Crimson:
        return {rgb(0.9, 0.15, 0.25), rgb(0.95, 0.35, 0.45), rgb(1.0, 0.5, 0.6)};
    }
    return {grey(1.0), grey(0.8), grey(0.6)};
}

QList<QColor> WidgetPalette::barColorsOf(WidgetTheme theme, int count)
{
    const std::array<QColor, 3> palette = themeColorsOf(theme);
    constexpr int m = int(palette.size());
    QList<QColor> colors;
    colors.reserve(count);
    for (int i = 0; i < count; ++i) {
        const double p = count > 1 ? double(i) / (count - 1) * (m - 1) : 0.0;
        const int lower = int(std::floor(p));
        const int upper = std::min(m - 1, lower + 1);
        const double f = p - lower;
        // QColor holds sRGB components already; an invalid colour would blend as white.
        const QColor a = palette[lower].isValid() ? palette[lower] : QColor(Qt::white);
        const QColor b = palette[upper].isValid() ? palette[upper] : QColor(Qt::white);
        colors.append(rgb(a.redF() + f * (b.redF() - a.redF()), a.greenF() + f * (b.greenF() - a.greenF()),
                          a.blueF() + f * (b.blueF() - a.blueF())));
    }
    return colors;
}

WidgetPalette WidgetPalette::make(WidgetTheme theme, WidgetAppearance appearance)
{
    WidgetPalette p;
    p.barColors = barColorsOf(theme);
    const std::array<QColor, 3> colors = themeColorsOf(theme);
    p.themeColors = {colors.begin(), colors.end()};
    p.dark = appearance == WidgetAppearance::Dark;
    // The accent is the theme's first colour, except where white would vanish on a light panel.
    const QColor themeAccent = theme == WidgetTheme::Default ? QColor() : colors[0];
    if (p.dark) {
        p.panel = QColor(0x1c, 0x1c, 0x21, 0xf2);
        p.panelBorder = QColor(255, 255, 255, 0x1f);
        p.waveformWell = QColor(255, 255, 255, 0x12);
        p.foreground = QColor(0xf5, 0xf5, 0xf7);
        p.secondaryForeground = QColor(0xa1, 0xa1, 0xaa);
        p.controlHover = QColor(255, 255, 255, 0x1f);
        p.controlPressed = QColor(255, 255, 255, 0x33);
        p.track = QColor(255, 255, 255, 0x2e);
        p.accent = themeAccent.isValid() ? themeAccent : QColor(0xf5, 0xf5, 0xf7);
        p.playButton = p.accent;
        p.warning = QColor(0xff, 0xb3, 0x40);
    } else {
        p.panel = QColor(0xf7, 0xf7, 0xf9, 0xf5);
        p.panelBorder = QColor(0, 0, 0, 0x1f);
        // Theme bars are light colours (Default is white to grey): they sit in a dark well here too.
        p.waveformWell = QColor(0x2a, 0x2a, 0x31);
        p.foreground = QColor(0x1d, 0x1d, 0x1f);
        p.secondaryForeground = QColor(0x5f, 0x5f, 0x68);
        p.controlHover = QColor(0, 0, 0, 0x14);
        p.controlPressed = QColor(0, 0, 0, 0x26);
        p.track = QColor(0, 0, 0, 0x1f);
        p.accent = themeAccent.isValid() ? themeAccent.darker(130) : QColor(0x1d, 0x1d, 0x1f);
        p.playButton = themeAccent.isValid() ? themeAccent.darker(115) : QColor(0x1d, 0x1d, 0x1f);
        p.warning = QColor(0xb2, 0x5e, 0x00);
    }
    p.playSymbol = inkOn(p.playButton);
    return p;
}

QString WidgetFormat::timeLabel(double seconds)
{
    const qint64 s = std::llround(std::abs(seconds));
    const qint64 minutes = s / 60;
    return QString::asprintf("%lld:%02lld", minutes, s - minutes * 60);
}

QString WidgetFormat::speedLabel(double speed)
{
    return QString::asprintf("%.1f", speed) + QLatin1Char('x');
}
