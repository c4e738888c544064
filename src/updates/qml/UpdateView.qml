// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Templates as T
import QtQuick.Layouts
import Quillvox.Controls
import Quillvox.Updates

// "Check for Updates...": one message and the buttons that fit it.
T.Pane {
    id: root

    required property UpdateViewModel viewModel
    readonly property bool available: viewModel.state === UpdateViewModel.Available
    readonly property bool checking: viewModel.state === UpdateViewModel.Checking

    padding: 20
    background: Rectangle {
        color: Style.window
    }

    ColumnLayout {
        anchors.fill: parent
        spacing: 8

        RowLayout {
            spacing: 12

            BusyIndicator {
                visible: root.checking
                running: root.checking
                Layout.preferredWidth: 28
                Layout.preferredHeight: 28
            }
            Label {
                Layout.fillWidth: true
                text: root.viewModel.headline
                font.pixelSize: 16
                font.weight: Font.DemiBold
                wrapMode: Text.Wrap
                Accessible.name: text
            }
        }
        Label {
            Layout.fillWidth: true
            text: root.viewModel.detail
            wrapMode: Text.Wrap
            opacity: 0.75
            Accessible.name: text
        }
        Item { Layout.fillHeight: true }
        // One row for each case, shown or hidden whole: Qt 6.4's layouts do not place buttons that only
        // become visible after the first layout.
        RowLayout {
            Layout.fillWidth: true
            visible: root.available
            spacing: 8

            PushButton {
                visible: root.viewModel.hasReleaseNotes
                text: "Release Notes"
                kind: "link"
                Accessible.name: text
                onClicked: root.viewModel.openReleaseNotes()
            }
            Item { Layout.fillWidth: true }
            PushButton {
                text: "Skip This Version"
                Accessible.name: text
                onClicked: root.viewModel.skipThisVersion()
            }
            PushButton {
                text: "Remind Me Later"
                Accessible.name: text
                onClicked: root.viewModel.remindLater()
            }
            PushButton {
                text: "Download"
                kind: "primary"
                Accessible.name: text
                onClicked: root.viewModel.download()
            }
        }
        RowLayout {
            Layout.fillWidth: true
            visible: !root.available

            Item { Layout.fillWidth: true }
            PushButton {
                text: "OK"
                kind: "primary"
                Accessible.name: text
                onClicked: root.viewModel.remindLater()
            }
        }
    }
}
