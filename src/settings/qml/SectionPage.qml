// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Layouts
import QtQuick.Templates as T
import QtQuick.Window
import Quillvox.Controls

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
        const top = item.mapToItem(scroll.contentItem, 0, 0).y;
        const room = 16;
        if (top - room < scroll.contentY)
            scroll.contentY = Math.max(0, top - room);
        else if (top + item.height + room > scroll.contentY + scroll.height)
            scroll.contentY = Math.min(scroll.contentHeight - scroll.height,
                                       top + item.height + room - scroll.height);
    }

    Connections {
        target: root.Window.window
        function onActiveFocusItemChanged() {
            root.reveal(root.Window.window.activeFocusItem);
        }
    }

    Flickable {
        id: scroll
        anchors.fill: parent
        contentWidth: width
        contentHeight: page.implicitHeight
        boundsBehavior: Flickable.StopAtBounds
        clip: true
        T.ScrollBar.vertical: ScrollBar {}

        ColumnLayout {
            id: page
            x: 32
            width: Math.min(scroll.width - 64, 640)
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
