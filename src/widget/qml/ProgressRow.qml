// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import Quillvox.Widget

// Elapsed time, the progress track (click or drag to seek) and the total.
Item {
    id: row

    required property FloatingWidgetViewModel viewModel
    readonly property var palette_: viewModel.palette

    Text {
        id: elapsed

        anchors.left: parent.left
        anchors.verticalCenter: parent.verticalCenter
        width: 36
        font.pixelSize: 11
        color: row.palette_.secondaryForeground
        text: row.viewModel.currentTimeText
    }

    Item {
        id: track

        anchors.left: elapsed.right
        anchors.right: total.left
        anchors.leftMargin: 6
        anchors.rightMargin: 6
        anchors.verticalCenter: parent.verticalCenter
        height: 16
        Accessible.role: Accessible.ProgressBar
        Accessible.name: "Playback progress"
        Accessible.description: row.viewModel.progressValueText

        Rectangle {
            anchors.verticalCenter: parent.verticalCenter
            width: parent.width
            height: 4
            radius: 2
            color: row.palette_.track

            Rectangle {
                width: parent.width * row.viewModel.progress
                height: parent.height
                radius: 2
                color: row.palette_.accent
            }
        }
        Rectangle {
            x: track.width * row.viewModel.progress - width / 2
            anchors.verticalCenter: parent.verticalCenter
            width: 10
            height: 10
            radius: 5
            color: row.palette_.accent
            visible: seekArea.containsMouse || seekArea.pressed
        }
        MouseArea {
            id: seekArea

            anchors.fill: parent
            hoverEnabled: true
            cursorShape: Qt.PointingHandCursor
            onPressed: mouse => row.viewModel.seekToFraction(mouse.x / width)
            onPositionChanged: mouse => { if (pressed) row.viewModel.seekToFraction(mouse.x / width) }
        }
    }

    Text {
        id: total

        anchors.right: parent.right
        anchors.verticalCenter: parent.verticalCenter
        width: 36
        horizontalAlignment: Text.AlignRight
        font.pixelSize: 11
        color: row.palette_.secondaryForeground
        text: row.viewModel.totalTimeText
    }
}
