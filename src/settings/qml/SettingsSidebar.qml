// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Templates as T
import Quillvox.Controls

// The list of sections; choosing one only reports it, the view model decides what is shown. One stop on
// the Tab path: the arrow keys move between sections.
Rectangle {
    id: root

    property var sections: []
    property int currentIndex: 0

    signal sectionChosen(string label)

    function choose(index) {
        if (index >= 0 && index < sections.length)
            sectionChosen(sections[index]);
    }

    color: systemPalette.alternateBase

    SystemPalette {
        id: systemPalette
    }

    ListView {
        id: list
        anchors.fill: parent
        anchors.topMargin: 16
        model: root.sections
        currentIndex: root.currentIndex
        interactive: false
        keyNavigationEnabled: false
        activeFocusOnTab: true
        Accessible.role: Accessible.List
        Accessible.name: "Sections"
        Keys.onUpPressed: root.choose(root.currentIndex - 1)
        Keys.onDownPressed: root.choose(root.currentIndex + 1)
        Keys.onPressed: event => {
            if (event.key === Qt.Key_Home)
                root.choose(0);
            else if (event.key === Qt.Key_End)
                root.choose(root.sections.length - 1);
            else
                return;
            event.accepted = true;
        }

        delegate: T.ItemDelegate {
            id: row

            required property string modelData
            required property int index
            readonly property bool current: index === root.currentIndex

            objectName: "section:" + modelData
            width: ListView.view.width
            height: 34
            leftPadding: 20
            text: modelData
            highlighted: current
            // The list holds the focus for all its rows.
            focusPolicy: Qt.NoFocus
            Accessible.name: modelData
            Accessible.selected: current
            onClicked: {
                list.forceActiveFocus(Qt.MouseFocusReason);
                root.sectionChosen(modelData);
            }

            background: Rectangle {
                anchors.fill: parent
                anchors.leftMargin: 8
                anchors.rightMargin: 8
                anchors.topMargin: 1
                anchors.bottomMargin: 1
                radius: 6
                color: row.current ? Style.accent : (row.hovered ? Style.hover : "transparent")

                // Inside the row, in the text colour: around the highlighted row a highlight ring
                // would not show.
                Rectangle {
                    anchors.fill: parent
                    anchors.margins: -1
                    visible: row.current && list.activeFocus
                    radius: 7
                    color: "transparent"
                    border.width: 2
                    border.color: Qt.lighter(Style.accent, 1.6)
                }
            }
            contentItem: Label {
                text: row.text
                color: row.current ? Style.textOnAccent : Style.text
                verticalAlignment: Text.AlignVCenter
            }
        }
    }

    Rectangle {
        anchors.right: parent.right
        width: 1
        height: parent.height
        color: Qt.rgba(systemPalette.text.r, systemPalette.text.g, systemPalette.text.b, 0.1)
    }
}
