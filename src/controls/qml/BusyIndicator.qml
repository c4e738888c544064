// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Templates as T

// Eight dots around a circle, turning while something is under way.
T.BusyIndicator {
    id: control

    property color ink: Style.secondaryText

    implicitWidth: 24
    implicitHeight: 24

    contentItem: Item {
        id: dial

        readonly property real size: Math.min(control.availableWidth, control.availableHeight)

        opacity: control.running ? 1 : 0
        visible: opacity > 0

        Repeater {
            model: 8

            Rectangle {
                required property int index
                readonly property real angle: index * Math.PI / 4
                readonly property real reach: dial.size / 2 - width / 2

                width: Math.max(2, dial.size / 6)
                height: width
                radius: width / 2
                x: dial.width / 2 + reach * Math.sin(angle) - width / 2
                y: dial.height / 2 - reach * Math.cos(angle) - height / 2
                color: control.ink
                opacity: 0.2 + 0.8 * index / 7
            }
        }

        RotationAnimator on rotation {
            running: control.running && control.visible
            from: 0
            to: 360
            duration: 1000
            loops: Animation.Infinite
        }
    }
}
