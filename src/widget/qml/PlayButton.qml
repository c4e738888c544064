// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Templates as T
import Quillvox.Controls
import Quillvox.Widget

// The round play / pause button; spins while speech is being generated.
T.AbstractButton {
    id: button

    required property FloatingWidgetViewModel viewModel
    readonly property var palette_: viewModel.palette
    readonly property int state_: viewModel.playState
    readonly property bool playing: state_ === FloatingWidgetViewModel.Playing

    implicitWidth: 40
    implicitHeight: 40
    focusPolicy: Qt.NoFocus
    hoverEnabled: true
    Accessible.name: playing ? "Pause" : "Play"
    onClicked: viewModel.playPauseAction()

    ToolTip {
        text: button.Accessible.name
    }

    background: Rectangle {
        radius: width / 2
        color: button.palette_.playButton
        opacity: button.down ? 0.8 : (button.hovered ? 0.92 : 1)
    }
    contentItem: Item {
        Image {
            anchors.centerIn: parent
            anchors.horizontalCenterOffset: button.playing ? 0 : 1
            visible: button.state_ !== FloatingWidgetViewModel.Loading
            width: 20
            height: 20
            sourceSize: Qt.size(20, 20)
            source: "image://quillvox-icons/" + (button.playing ? "pause" : "play") + "/"
                    + String(button.palette_.playSymbol).substring(1)
        }
        Rectangle {
            id: spinner

            anchors.centerIn: parent
            visible: button.state_ === FloatingWidgetViewModel.Loading
            width: 18
            height: 18
            radius: 9
            color: "transparent"
            border.width: 2.5
            border.color: button.palette_.playSymbol
            opacity: 0.35
        }
        Rectangle {
            anchors.centerIn: parent
            visible: spinner.visible
            width: 18
            height: 18
            color: "transparent"
            RotationAnimator on rotation {
                running: spinner.visible
                from: 0
                to: 360
                duration: 900
                loops: Animation.Infinite
            }
            Rectangle {
                x: 7.75
                y: 0
                width: 2.5
                height: 6
                radius: 1.25
                color: button.palette_.playSymbol
            }
        }
    }
}
