// SPDX-License-Identifier: GPL-3.0-or-later
pragma Singleton
import QtQuick

// The onboarding window's colours, sizes and type scale, on a 4-pixel grid.
QtObject {
    readonly property color background: "#ffffff"
    readonly property color surface: "#f4f5f8"
    readonly property color border: "#dde0e7"
    readonly property color text: "#17181c"
    readonly property color secondaryText: "#565b66"
    readonly property color accent: "#5146e0"
    readonly property color accentPressed: "#3f35c4"
    readonly property color textOnAccent: "#ffffff"
    readonly property color success: "#1f8f4e"
    readonly property color warning: "#c26a12"
    readonly property color error: "#c0262d"

    readonly property int margin: 32
    readonly property int spacing: 12
    readonly property int radius: 10

    readonly property int titleSize: 24
    readonly property int headlineSize: 16
    readonly property int bodySize: 14
    readonly property int captionSize: 12
}
