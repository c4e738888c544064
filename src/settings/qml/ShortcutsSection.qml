// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Controls.Fusion
import QtQuick.Layouts
import Quillvox.Settings
import Quillvox.Shortcuts

SectionPage {
    id: root

    required property ShortcutSettingsModel model
    property int recordingRow: -1

    title: "Shortcuts"

    SystemPalette {
        id: systemPalette
    }

    SettingsCard {
        title: "Keyboard shortcuts"
        subtitle: root.model.rows.length > 0
                  ? "Click a shortcut, then press the new combination. Escape cancels."
                  : root.model.gnomeExtensionHelp !== "" ? "" : root.model.desktopBindingsIntro

        // GNOME on Wayland: our Shell extension gives the keys (the rows stay unassigned while it is off);
        // where it cannot run, GNOME's own shortcuts do.
        Label {
            visible: root.model.gnomeExtensionHelp !== ""
            Layout.fillWidth: true
            wrapMode: Text.WordWrap
            text: root.model.gnomeExtensionHelp
            Accessible.name: text
        }
        RowLayout {
            visible: root.model.canEnableGnomeExtension || root.model.canAddGnomeKeybindings
            spacing: 8
            Button {
                visible: root.model.canEnableGnomeExtension
                text: "Enable the Quillvox extension"
                Accessible.name: text
                onClicked: root.model.enableGnomeExtension()
            }
            Button {
                visible: root.model.canAddGnomeKeybindings
                text: "Add to GNOME keyboard shortcuts"
                Accessible.name: text
                onClicked: root.model.addGnomeKeybindings()
            }
        }
        Label {
            visible: root.model.gnomeActionResult !== ""
            Layout.fillWidth: true
            wrapMode: Text.WordWrap
            text: root.model.gnomeActionResult
            Accessible.name: text
        }

        // Selectable, so that the lines can be copied into the desktop's settings.
        TextEdit {
            // On GNOME only where its own shortcuts are the way.
            visible: root.model.rows.length === 0
                     && (root.model.gnomeExtensionHelp === "" || root.model.canAddGnomeKeybindings)
            Layout.fillWidth: true
            readOnly: true
            selectByMouse: true
            color: systemPalette.text
            selectionColor: systemPalette.highlight
            selectedTextColor: systemPalette.highlightedText
            text: root.model.desktopBindings
            wrapMode: Text.WrapAnywhere
            font.family: "monospace"
            textFormat: Text.PlainText
            Accessible.name: text
        }

        Repeater {
            model: root.model.rows

            delegate: RowLayout {
                required property var modelData
                required property int index

                Layout.fillWidth: true
                spacing: 12

                ColumnLayout {
                    Layout.fillWidth: true
                    spacing: 2
                    Label {
                        Layout.fillWidth: true
                        text: modelData.title
                    }
                    Label {
                        Layout.fillWidth: true
                        visible: modelData.assigned !== ""
                        wrapMode: Text.Wrap
                        text: "Desktop key: " + modelData.assigned
                        color: systemPalette.placeholderText
                        font.pixelSize: 12
                        Accessible.name: text
                    }
                    Label {
                        Layout.fillWidth: true
                        visible: modelData.problem !== ""
                        wrapMode: Text.Wrap
                        text: modelData.problem
                        color: "#d0342c"
                        font.pixelSize: 12
                        Accessible.name: text
                    }
                }
                ShortcutRecorder {
                    Layout.preferredWidth: 180
                    Layout.preferredHeight: 32
                    label: modelData.label
                    isRecording: root.recordingRow === index
                    activeFocusOnTab: true
                    Accessible.role: Accessible.Button
                    Accessible.name: modelData.title + " shortcut"
                    Accessible.description: modelData.label
                    Accessible.onPressAction: root.recordingRow = index
                    Keys.onReturnPressed: root.recordingRow = index
                    Keys.onSpacePressed: root.recordingRow = index
                    onRecorded: (key, modifiers) => root.model.record(index, key, modifiers)
                    onFinished: root.recordingRow = -1

                    TapHandler {
                        onTapped: root.recordingRow = index
                    }
                }
                Button {
                    text: "Reset"
                    enabled: !modelData.isDefault
                    flat: true
                    Accessible.name: "Reset " + modelData.title
                    onClicked: root.model.reset(index)
                }
            }
        }
    }

    SettingsCard {
        title: "Selection capture"
        subtitle: root.model.captureProblem !== ""
                  ? root.model.captureProblem
                  : "Quillvox can read the text selected in other applications in this session."
    }
}
