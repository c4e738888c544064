// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QList>
#include <QString>

// The widget's appearance and colour theme. They are persisted with the voice choices; their colours
// live with the widget.
enum class WidgetAppearance { Dark, Light };
enum class WidgetTheme { Default, Aurora, Sunset, Ocean, Violet, Amber, Mint, Crimson };

QString rawValue(WidgetAppearance appearance);
// "Light" gives Light; anything else Dark.
WidgetAppearance widgetAppearanceFromRawValue(const QString &raw);
QString appearanceDescription(WidgetAppearance appearance);
const QList<WidgetAppearance> &allWidgetAppearances();

QString rawValue(WidgetTheme theme);
// An unknown value gives Default.
WidgetTheme widgetThemeFromRawValue(const QString &raw);
const QList<WidgetTheme> &allWidgetThemes();
