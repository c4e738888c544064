// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Templates as T
import Quillvox.Controls

// A flat symbol button with its name for screen readers and as a tooltip.
T.AbstractButton {
    id: button

    required property var palette_
    required property string symbol
    required property string name
    property string help: name
    property int symbolSize: 18

    implicitWidth: 30
    implicitHeight: 30
    focusPolicy: Qt.NoFocus
    hoverEnabled: true
    Accessible.name: name
    Accessible.description: help

    ToolTip {
        text: button.help
    }

    background: Rectangle {
        radius: 8
        color: button.down ? button.palette_.controlPressed
                           : (button.hovered ? button.palette_.controlHover : "transparent")
    }
    contentItem: Item {
        Image {
            anchors.centerIn: parent
            width: button.symbolSize
            height: button.symbolSize
            sourceSize: Qt.size(button.symbolSize, button.symbolSize)
            source: "image://quillvox-icons/" + button.symbol + "/" + String(button.palette_.foreground).substring(1)
        }
    }
}
