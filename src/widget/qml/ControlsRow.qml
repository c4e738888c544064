// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Templates as T
import Quillvox.Controls
import Quillvox.Widget

// Skip, speed and stop; the full set stays while pinned with "Expand controls".
Item {
    id: row

    required property FloatingWidgetViewModel viewModel
    readonly property var palette_: viewModel.palette
    readonly property bool full: viewModel.showFullControls

    height: 30

    Row {
        anchors.left: parent.left
        anchors.verticalCenter: parent.verticalCenter
        spacing: 4

        IconButton {
            palette_: row.palette_
            symbol: "skip-back"
            name: "Skip back 5 seconds"
            onClicked: row.viewModel.skipBack()
        }
        T.AbstractButton {
            id: speed

            implicitWidth: 48
            implicitHeight: 30
            focusPolicy: Qt.NoFocus
            hoverEnabled: true
            Accessible.name: row.viewModel.speedAccessibleName
            Accessible.description: "Tap to cycle through speeds"
            onClicked: row.viewModel.cycleSpeed()

            ToolTip {
                text: "Tap to cycle through speeds"
            }

            background: Rectangle {
                radius: 8
                color: speed.down ? row.palette_.controlPressed
                                  : (speed.hovered ? row.palette_.controlHover : "transparent")
            }
            contentItem: Text {
                horizontalAlignment: Text.AlignHCenter
                verticalAlignment: Text.AlignVCenter
                font.pixelSize: 13
                font.weight: Font.DemiBold
                color: row.palette_.foreground
                text: row.viewModel.speedText
            }
        }
        IconButton {
            palette_: row.palette_
            symbol: "skip-forward"
            name: "Skip forward 5 seconds"
            onClicked: row.viewModel.skipForward()
        }
        IconButton {
            visible: row.full
            palette_: row.palette_
            symbol: "stop"
            name: "Stop narration"
            symbolSize: 16
            onClicked: row.viewModel.stop()
        }
    }

    IconButton {
        anchors.right: parent.right
        anchors.verticalCenter: parent.verticalCenter
        palette_: row.palette_
        symbol: row.full ? "collapse" : "expand"
        name: row.full ? "Collapse controls" : "Expand controls"
        symbolSize: 16
        onClicked: row.viewModel.toggleFullControls()
    }
}
