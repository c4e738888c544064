// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick

// A small chevron pointing down (or up, rotated), drawn from two strokes.
Item {
    id: chevron

    property color color: Style.text
    property real stroke: 1.6

    implicitWidth: 10
    implicitHeight: 6
    Accessible.ignored: true

    Repeater {
        model: [1, -1]

        Rectangle {
            required property int index
            required property real modelData

            width: Math.hypot(chevron.width / 2, chevron.height) + chevron.stroke / 2
            height: chevron.stroke
            radius: height / 2
            color: chevron.color
            x: index === 0 ? chevron.width / 4 - width / 2 : 3 * chevron.width / 4 - width / 2
            y: chevron.height / 2 - height / 2
            rotation: modelData * Math.atan2(chevron.height, chevron.width / 2) * 180 / Math.PI
        }
    }
}
