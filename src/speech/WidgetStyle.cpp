// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/WidgetStyle.h"

QString rawValue(WidgetAppearance appearance)
{
    return appearance == WidgetAppearance::Light ? QStringLiteral("Light") : QStringLiteral("Dark");
}

WidgetAppearance widgetAppearanceFromRawValue(const QString &raw)
{
    return raw == u"Light" ? WidgetAppearance::Light : WidgetAppearance::Dark;
}

QString appearanceDescription(WidgetAppearance appearance)
{
    return appearance == WidgetAppearance::Light ? QStringLiteral("Best for light backgrounds")
                                                 : QStringLiteral("Best for dark backgrounds");
}

const QList<WidgetAppearance> &allWidgetAppearances()
{
    static const QList<WidgetAppearance> all{WidgetAppearance::Dark, WidgetAppearance::Light};
    return all;
}

QString rawValue(WidgetTheme theme)
{
    switch (theme) {
    case WidgetTheme::Default:
        return QStringLiteral("Default");
    case WidgetTheme::Aurora:
        return QStringLiteral("Aurora");
    case WidgetTheme::Sunset:
        return QStringLiteral("Sunset");
    case WidgetTheme::Ocean:
        return QStringLiteral("Ocean");
    case WidgetTheme::Violet:
        return QStringLiteral("Violet");
    case WidgetTheme::Amber:
        return QStringLiteral("Amber");
    case WidgetTheme::Mint:
        return QStringLiteral("Mint");
    case WidgetTheme::Crimson:
        return QStringLiteral("Crimson");
    }
    Q_UNREACHABLE();
    return {};
}

WidgetTheme widgetThemeFromRawValue(const QString &raw)
{
    for (WidgetTheme theme : allWidgetThemes()) {
        if (rawValue(theme) == raw)
            return theme;
    }
    return WidgetTheme::Default;
}

const QList<WidgetTheme> &allWidgetThemes()
{
    static const QList<WidgetTheme> all{WidgetTheme::Default, WidgetTheme::Aurora, WidgetTheme::Sunset,
                                        WidgetTheme::Ocean,   WidgetTheme::Violet, WidgetTheme::Amber,
                                        WidgetTheme::Mint,    WidgetTheme::Crimson};
    return all;
}
