// SPDX-License-Identifier: GPL-3.0-or-later
pragma Singleton
import QtQuick

// The shared controls' colours and sizes. The surfaces and text follow the desktop's palette, light or
// dark; the accent is Quillvox's own, a shade lighter on a dark palette so that it keeps its contrast.
QtObject {
    id: style

    readonly property SystemPalette system: SystemPalette {}
    readonly property bool dark: system.window.hslLightness < 0.5

    readonly property color window: system.window
    readonly property color text: system.windowText
    readonly property color secondaryText: Qt.rgba(text.r, text.g, text.b, dark ? 0.68 : 0.64)
    // Cards: the base colour on a light palette; a dark one is raised above the window instead.
    readonly property color surface: dark ? Qt.lighter(window, 1.3) : system.base
    readonly property color border: Qt.rgba(text.r, text.g, text.b, dark ? 0.16 : 0.14)
    readonly property color control: dark ? Qt.lighter(window, 1.55) : "#ffffff"
    readonly property color controlBorder: Qt.rgba(text.r, text.g, text.b, dark ? 0.18 : 0.2)
    readonly property color hover: Qt.rgba(text.r, text.g, text.b, 0.06)

    // Fills under white text keep 4.5:1 on either palette; text in the accent is lighter on a dark one.
    readonly property color accent: dark ? "#5f55e0" : "#5146e0"
    readonly property color accentPressed: dark ? "#5047c8" : "#3f35c4"
    readonly property color accentText: dark ? "#a29cf8" : "#5146e0"
    readonly property color accentTint: Qt.rgba(accent.r, accent.g, accent.b, dark ? 0.18 : 0.08)
    readonly property color textOnAccent: "#ffffff"
    readonly property color destructive: dark ? "#ff6b64" : "#c0262d"
    readonly property color success: dark ? "#5fcf8d" : "#1f8f4e"
    readonly property color warning: dark ? "#f0a54a" : "#a85f00"
    readonly property color trackOff: dark ? "#5a5a62" : "#c4c7d0"

    readonly property int radius: 8
    readonly property int controlHeight: 32
    // Settings' text is the desktop's; onboarding sets its own larger scale.
    readonly property int bodySize: 13
    readonly property int captionSize: 12
}
