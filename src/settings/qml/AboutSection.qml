// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Controls.Fusion
import QtQuick.Layouts

SectionPage {
    id: root

    property string version
    // Where "Check for Updates" and the update switches go.
    property alias updateControls: updateControls.data

    title: "About"

    SettingsCard {
        RowLayout {
            spacing: 16

            ColumnLayout {
                spacing: 2
                Label {
                    text: "Quillvox"
                    font.pixelSize: 18
                    font.bold: true
                    Accessible.name: text
                }
                Label {
                    objectName: "versionLabel"
                    text: "Version " + root.version
                    opacity: 0.7
                    Accessible.name: text
                }
                Label {
                    text: "Reads selected text aloud."
                    opacity: 0.7
                }
            }
        }
    }

    SettingsCard {
        title: "Updates"
        visible: updateControls.children.length > 0

        ColumnLayout {
            id: updateControls
            objectName: "updateControls"
            Layout.fillWidth: true
            spacing: 8
        }
    }

    SettingsCard {
        title: "Links"

        Flow {
            Layout.fillWidth: true
            spacing: 8
            Button {
                text: "Website"
                flat: true
                Accessible.name: "Website"
                onClicked: Qt.openUrlExternally("https://quillvox.app")
            }
        }
    }
}
