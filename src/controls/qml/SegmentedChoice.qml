// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Templates as T

// One choice among a few, drawn as joined segments; the chosen one in the accent. `model` is a list of
// labels, `currentIndex` the chosen one; `chosen(index)` reports a click. Each segment is a button that
// says whether it is the chosen one; `namePrefix` goes before its label in its accessible name.
Rectangle {
    id: root

    property var model: []
    property int currentIndex: -1
    property string namePrefix
    property int segmentRole: Accessible.Button
    signal chosen(int index)

    implicitWidth: row.implicitWidth + 4
    implicitHeight: Style.controlHeight
    radius: Style.radius
    color: Style.control
    border.width: 1
    border.color: Style.controlBorder

    Row {
        id: row
        anchors.fill: parent
        anchors.margins: 2
        spacing: 2

        Repeater {
            model: root.model

            delegate: T.AbstractButton {
                id: segment

                required property int index
                required property var modelData
                readonly property bool current: index === root.currentIndex

                width: Math.max(implicitWidth, (row.width - (root.model.length - 1) * row.spacing) / root.model.length)
                implicitWidth: Math.max(64, label.implicitWidth + 28)
                height: row.height
                text: String(modelData)
                hoverEnabled: true
                focusPolicy: Qt.StrongFocus
                checkable: false
                checked: current
                Accessible.role: root.segmentRole
                Accessible.name: root.namePrefix + text
                Accessible.checkable: true
                Accessible.checked: current
                onClicked: root.chosen(index)

                background: Rectangle {
                    radius: Style.radius - 2
                    color: segment.current ? (segment.down ? Style.accentPressed : Style.accent)
                                           : segment.down ? Qt.darker(Style.control, 1.1)
                                                          : segment.hovered ? Style.hover : "transparent"
                }
                contentItem: Text {
                    id: label
                    text: segment.text
                    color: segment.current ? Style.textOnAccent : Style.text
                    font.pixelSize: Style.bodySize
                    font.weight: segment.current ? Font.DemiBold : Font.Normal
                    horizontalAlignment: Text.AlignHCenter
                    verticalAlignment: Text.AlignVCenter
                    Accessible.ignored: true
                }
                FocusRing {
                    shown: segment.visualFocus
                    radius: Style.radius
                }
            }
        }
    }
}
