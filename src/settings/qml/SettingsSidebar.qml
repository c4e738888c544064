// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Controls.Fusion

// The list of sections; choosing one only reports it, the view model decides what is shown.
Rectangle {
    id: root

    property var sections: []
    property int currentIndex: 0

    signal sectionChosen(string label)

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
        Accessible.role: Accessible.List
        Accessible.name: "Sections"

        delegate: ItemDelegate {
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
            Accessible.name: modelData
            onClicked: root.sectionChosen(modelData)

            background: Rectangle {
                anchors.fill: parent
                anchors.leftMargin: 8
                anchors.rightMargin: 8
                anchors.topMargin: 1
                anchors.bottomMargin: 1
                radius: 6
                color: row.current ? systemPalette.highlight
                                   : (row.hovered ? Qt.rgba(systemPalette.text.r, systemPalette.text.g,
                                                            systemPalette.text.b, 0.06) : "transparent")
            }
            contentItem: Label {
                text: row.text
                color: row.current ? systemPalette.highlightedText : systemPalette.text
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
