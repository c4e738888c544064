// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Controls.Fusion
import QtQuick.Layouts
import QtQuick.Window

// One section's page: its title, then whatever the section puts in it, scrolling when it is taller than
// the window, and to whatever control of it takes the keyboard focus.
Item {
    id: root

    required property string title
    default property alias content: body.data

    // Scrolls so that `item`, when it is on this page, is in view with a little room around it.
    function reveal(item) {
        if (!item || !root.visible)
            return;
        let ancestor = item;
        while (ancestor && ancestor !== body)
            ancestor = ancestor.parent;
        if (!ancestor)
            return;
        const flickable = scroll.contentItem;
        const top = item.mapToItem(flickable.contentItem, 0, 0).y;
        const room = 16;
        if (top - room < flickable.contentY)
            flickable.contentY = Math.max(0, top - room);
        else if (top + item.height + room > flickable.contentY + flickable.height)
            flickable.contentY = Math.min(flickable.contentHeight - flickable.height,
                                          top + item.height + room - flickable.height);
    }

    Connections {
        target: root.Window.window
        function onActiveFocusItemChanged() {
            root.reveal(root.Window.window.activeFocusItem);
        }
    }

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
