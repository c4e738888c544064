// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick

// The keyboard focus drawn around its parent: a ring in the accent just outside the control's edge.
Rectangle {
    // Controls pass their `visualFocus`, so that a click draws none.
    property bool shown: parent ? parent.activeFocus : false
    property real gap: 3

    anchors.fill: parent
    anchors.margins: -gap
    visible: shown
    z: 100
    radius: Style.radius + gap
    color: "transparent"
    border.width: 2
    border.color: Style.accentText
    Accessible.ignored: true
}
