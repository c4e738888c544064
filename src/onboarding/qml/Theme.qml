// SPDX-License-Identifier: GPL-3.0-or-later
pragma Singleton
import QtQuick
import Quillvox.Controls

// The onboarding window's colours, sizes and type scale, on a 4-pixel grid. The colours are the shared
// controls' own, so that the window follows the desktop's light or dark palette as Settings does.
QtObject {
    readonly property color background: Style.dark ? Style.window : "#ffffff"
    readonly property color surface: Style.dark ? Style.surface : "#f4f5f8"
    readonly property color border: Style.border
    readonly property color text: Style.text
    readonly property color secondaryText: Style.secondaryText
    readonly property color accent: Style.accent
    readonly property color accentPressed: Style.accentPressed
    readonly property color accentTint: Style.accentTint
    readonly property color textOnAccent: Style.textOnAccent
    readonly property color success: Style.success
    readonly property color warning: Style.warning
    readonly property color error: Style.destructive

    readonly property int margin: 32
    readonly property int spacing: 12
    readonly property int radius: 10

    readonly property int titleSize: 24
    readonly property int headlineSize: 16
    readonly property int bodySize: 14
    readonly property int captionSize: 12
}
