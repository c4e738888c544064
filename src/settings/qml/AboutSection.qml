// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Layouts
import Quillvox.Controls
import Quillvox.Settings

SectionPage {
    id: root

    property string version
    property AboutSettingsModel about
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
        title: "Start-up and updates"
        visible: updateControls.children.length > 0

        ColumnLayout {
            id: updateControls
            objectName: "updateControls"
            Layout.fillWidth: true
            spacing: 8

            SwitchRow {
                visible: !!root.about
                text: "Check for updates automatically"
                checked: root.about ? root.about.checkForUpdatesAutomatically : true
                onToggled: on => root.about.checkForUpdatesAutomatically = on
            }
            SwitchRow {
                visible: !!root.about
                text: "Start Quillvox at login"
                checked: root.about ? root.about.startAtLogin : false
                onToggled: on => root.about.startAtLogin = on
            }
            Label {
                visible: !!root.about && root.about.startAtLoginError !== ""
                text: root.about ? root.about.startAtLoginError : ""
                color: Style.destructive
                wrapMode: Text.Wrap
                Layout.fillWidth: true
            }
            PushButton {
                Layout.topMargin: 4
                visible: !!root.about
                text: "Check for Updates..."
                Accessible.name: text
                onClicked: root.about.checkForUpdates()
            }
            RowLayout {
                visible: !!root.about && root.about.skippedVersionText !== ""
                Layout.fillWidth: true
                spacing: 12
                Label {
                    objectName: "skippedVersionLabel"
                    text: root.about ? root.about.skippedVersionText : ""
                    opacity: 0.7
                    Accessible.name: text
                }
                PushButton {
                    kind: "link"
                    text: "Forget"
                    Accessible.name: text
                    onClicked: root.about.forgetSkippedVersion()
                }
                Item { Layout.fillWidth: true }
            }
        }
    }

    SettingsCard {
        title: "Links"

        Flow {
            Layout.fillWidth: true
            spacing: 8
            // A link, aligned with the card's text, that still takes the focus like a button.
            PushButton {
                kind: "link"
                text: "Website"
                Accessible.name: "Website"
                visible: !!root.about
                onClicked: root.about.openWebsite()
            }
        }
    }
}
