// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Templates as T

// An on/off switch: a pill in the accent when on, its knob sliding across.
T.Switch {
    id: control

    implicitWidth: 44
    implicitHeight: 26
    padding: 0
    hoverEnabled: true
    focusPolicy: Qt.StrongFocus
    opacity: enabled ? 1 : 0.45
    Accessible.name: text

    indicator: Rectangle {
        width: control.width
        height: control.height
        radius: height / 2
        color: control.checked ? (control.down ? Style.accentPressed : Style.accent)
                               : (control.hovered ? Qt.darker(Style.trackOff, 1.06) : Style.trackOff)
        Behavior on color {
            ColorAnimation { duration: 120 }
        }

        Rectangle {
            width: parent.height - 6
            height: width
            radius: width / 2
            y: 3
            x: control.checked ? parent.width - width - 3 : 3
            color: "#ffffff"
            border.width: 1
            border.color: Qt.rgba(0, 0, 0, 0.08)
            Behavior on x {
                NumberAnimation { duration: 120; easing.type: Easing.OutCubic }
            }
        }
    }
    contentItem: Item {}
    FocusRing {
        shown: control.visualFocus
        radius: height / 2
    }
}
