// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// One section's page: its title, then whatever the section puts in it.
Item {
    id: root

    required property string title
    default property alias content: body.data

    Label {
        id: heading
        x: 32
        y: 24
        text: root.title
        font.pixelSize: 24
        font.bold: true
        Accessible.role: Accessible.Heading
        Accessible.name: root.title
    }

    ColumnLayout {
        id: body
        anchors.top: heading.bottom
        anchors.left: parent.left
        anchors.right: parent.right
        anchors.margins: 32
        spacing: 8
    }
}
