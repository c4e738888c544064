// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import Quillvox.Widget

// The panel: waveform, status, progress, and the controls that grow while the pointer is over it.
Item {
    id: root

    required property FloatingWidgetViewModel viewModel
    required property FloatingWindowController controller
    readonly property var palette: viewModel.palette
    readonly property var speech: viewModel.speech
    readonly property bool expanded: viewModel.showsExpanded

    width: 340
    height: 140

    HoverHandler {
        onHoveredChanged: root.viewModel.setHovered(hovered)
    }

    Rectangle {
        id: panel

        anchors.fill: parent
        radius: 16
        color: root.palette.panel
        border.color: root.palette.panelBorder
        border.width: 1

        // The theme's colours as a faint wash across the top edge.
        Rectangle {
            anchors.fill: parent
            anchors.margins: 1
            radius: parent.radius - 1
            opacity: root.palette.dark ? 0.16 : 0.10
            gradient: Gradient {
                orientation: Gradient.Horizontal
                GradientStop { position: 0.0; color: root.palette.themeColors[0] }
                GradientStop { position: 0.5; color: root.palette.themeColors[1] }
                GradientStop { position: 1.0; color: root.palette.themeColors[2] }
            }
        }
    }

    // Dragging the background moves the panel; a plain click does nothing.
    MouseArea {
        anchors.fill: parent
        acceptedButtons: Qt.LeftButton
        onPressed: mouse => root.controller.pressAt(mapToGlobal(mouse.x, mouse.y))
        onPositionChanged: mouse => root.controller.dragTo(mapToGlobal(mouse.x, mouse.y))
        onReleased: root.controller.release()
        onCanceled: root.controller.release()
    }

    Column {
        id: content

        x: 16
        width: parent.width - 32
        y: root.expanded ? 16 : (root.height - headerRow.height - progressArea.height - spacing) / 2
        spacing: 12

        Behavior on y { NumberAnimation { duration: 180; easing.type: Easing.OutCubic } }

        StatusRow {
            id: headerRow

            width: parent.width
            viewModel: root.viewModel
        }

        Item {
            id: progressArea

            width: parent.width
            height: 20

            ProgressRow {
                anchors.fill: parent
                visible: !root.viewModel.errorTitle
                viewModel: root.viewModel
            }
            ErrorRow {
                anchors.fill: parent
                visible: !!root.viewModel.errorTitle
                viewModel: root.viewModel
            }
        }

        ControlsRow {
            width: parent.width
            viewModel: root.viewModel
            visible: opacity > 0
            opacity: root.expanded ? 1 : 0

            Behavior on opacity { NumberAnimation { duration: 150 } }
        }

        FollowAlongRow {
            width: parent.width
            viewModel: root.viewModel
            visible: !!root.viewModel.followAlongText
        }
    }
}
