// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Quillvox.Updates

// "Check for Updates...": one message and the buttons that fit it.
Pane {
    id: root

    required property UpdateViewModel viewModel
    readonly property bool available: viewModel.state === UpdateViewModel.Available
    readonly property bool checking: viewModel.state === UpdateViewModel.Checking

    padding: 20

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
        RowLayout {
            Layout.fillWidth: true
            spacing: 8

            Button {
                visible: root.available && root.viewModel.hasReleaseNotes
                text: "Release Notes"
                flat: true
                Accessible.name: text
                onClicked: root.viewModel.openReleaseNotes()
            }
            Item { Layout.fillWidth: true }
            Button {
                visible: root.available
                text: "Skip This Version"
                Accessible.name: text
                onClicked: root.viewModel.skipThisVersion()
            }
            Button {
                visible: root.available
                text: "Remind Me Later"
                Accessible.name: text
                onClicked: root.viewModel.remindLater()
            }
            Button {
                visible: root.available
                text: "Download"
                highlighted: true
                Accessible.name: text
                onClicked: root.viewModel.download()
            }
            Button {
                visible: !root.available
                text: "OK"
                Accessible.name: text
                onClicked: root.viewModel.remindLater()
            }
        }
    }
}
