// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Controls

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
            required property string modelData
            required property int index

            objectName: "section:" + modelData
            width: ListView.view.width
            text: modelData
            highlighted: index === root.currentIndex
            Accessible.name: modelData
            onClicked: root.sectionChosen(modelData)
        }
    }
}
