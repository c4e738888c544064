// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick

// The keyboard focus drawn around its parent: a ring in the accent just outside the control's edge.
Rectangle {
    // Controls pass their `visualFocus`, so that a click draws none.
    property bool shown: false

    anchors.fill: parent
    anchors.margins: -3
    visible: shown
    z: 100
    radius: Theme.radius + 3
    color: "transparent"
    border.width: 2
    border.color: Theme.accent
    Accessible.ignored: true
}
