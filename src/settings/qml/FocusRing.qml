// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick

// The keyboard focus drawn around its parent: a ring in the highlight colour just outside the control's
// edge, for controls that draw their own background. Fusion's own controls draw theirs.
Rectangle {
    id: ring

    // Whether the parent has the focus; controls pass their `visualFocus`, so that a click draws none.
    property bool shown: parent ? parent.activeFocus : false
    property real gap: 3

    anchors.fill: parent
    anchors.margins: -gap
    visible: shown
    z: 100
    color: "transparent"
    radius: 8
    border.width: 2
    border.color: palette.highlight
    Accessible.ignored: true

    SystemPalette {
        id: palette
    }
}
