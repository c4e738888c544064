// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Controls.Fusion
import QtQuick.Layouts

// One section's page: its title, then whatever the section puts in it, scrolling when it is taller than
// the window.
Item {
    id: root

    required property string title
    default property alias content: body.data

    ScrollView {
        id: scroll
        anchors.fill: parent
        contentWidth: availableWidth
        clip: true

        ColumnLayout {
            x: 32
            width: Math.min(scroll.availableWidth - 64, 640)
            spacing: 16

            Label {
                Layout.topMargin: 24
                text: root.title
                font.pixelSize: 24
                font.bold: true
                Accessible.role: Accessible.Heading
                Accessible.name: root.title
            }

            ColumnLayout {
                id: body
                Layout.fillWidth: true
                Layout.bottomMargin: 32
                spacing: 16
            }
        }
    }
}
