// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Templates as T
import Quillvox.Widget

// What went wrong, and for a missing permission the way to fix it.
Item {
    id: row

    required property FloatingWidgetViewModel viewModel
    readonly property var palette_: viewModel.palette

    Image {
        id: symbol

        anchors.left: parent.left
        anchors.verticalCenter: parent.verticalCenter
        width: 14
        height: 14
        sourceSize: Qt.size(14, 14)
        source: "image://quillvox-icons/warning/" + String(row.palette_.warning).substring(1)
    }
    Text {
        anchors.left: symbol.right
        anchors.leftMargin: 6
        anchors.right: fix.visible ? fix.left : parent.right
        anchors.rightMargin: 8
        anchors.verticalCenter: parent.verticalCenter
        elide: Text.ElideRight
        font.pixelSize: 11
        color: row.palette_.secondaryForeground
        text: row.viewModel.errorMessage
        Accessible.name: text
    }
    T.AbstractButton {
        id: fix

        anchors.right: parent.right
        anchors.verticalCenter: parent.verticalCenter
        visible: row.viewModel.isPermissionError
        implicitWidth: label.implicitWidth + 16
        implicitHeight: 22
        focusPolicy: Qt.NoFocus
        hoverEnabled: true
        Accessible.name: "Open Settings"
        onClicked: row.viewModel.openPermissionSettings()

        background: Rectangle {
            radius: 6
            color: fix.down ? row.palette_.controlPressed : row.palette_.controlHover
        }
        contentItem: Text {
            id: label

            horizontalAlignment: Text.AlignHCenter
            verticalAlignment: Text.AlignVCenter
            font.pixelSize: 11
            font.weight: Font.DemiBold
            color: row.palette_.foreground
            text: "Open Settings"
        }
    }
}
