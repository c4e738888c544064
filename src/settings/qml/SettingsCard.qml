// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Layouts
import Quillvox.Controls

// A group of related settings on a raised surface, with an optional heading and explanation.
Rectangle {
    id: root

    property string title
    property string subtitle
    default property alias content: inner.data

    Layout.fillWidth: true
    implicitHeight: inner.implicitHeight + 32
    radius: 8
    color: Style.surface
    border.color: Style.border

    ColumnLayout {
        id: inner
        anchors.left: parent.left
        anchors.right: parent.right
        anchors.top: parent.top
        anchors.margins: 16
        spacing: 12

        Label {
            visible: root.title !== ""
            text: root.title
            font.bold: true
            font.pixelSize: 15
            Accessible.role: Accessible.Heading
            Accessible.name: text
        }
        Label {
            Layout.fillWidth: true
            Layout.topMargin: -8
            visible: root.subtitle !== ""
            text: root.subtitle
            wrapMode: Text.WordWrap
            opacity: 0.7
            Accessible.name: text
        }
    }
}
