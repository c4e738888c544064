// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Layouts
import Quillvox.Controls
import Quillvox.Settings
import Quillvox.Shortcuts

SectionPage {
    id: root

    required property ShortcutSettingsModel model

    title: "Shortcuts"

    SystemPalette {
        id: systemPalette
    }

    SettingsCard {
        title: "Keyboard shortcuts"
        subtitle: root.model.help

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
            PushButton {
                kind: "primary"
                visible: root.model.canEnableGnomeExtension
                text: "Enable the Quillvox extension"
                Accessible.name: text
                onClicked: root.model.enableGnomeExtension()
            }
            PushButton {
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

        // Selectable, and reachable from the keyboard, so that the lines can be copied into the desktop's
        // settings.
        ColumnLayout {
            visible: root.model.showsDesktopBindings
            Layout.fillWidth: true
            spacing: 8

            TextEdit {
                id: bindingLines
                Layout.fillWidth: true
                readOnly: true
                selectByMouse: true
                selectByKeyboard: true
                activeFocusOnTab: true
                color: systemPalette.text
                selectionColor: systemPalette.highlight
                selectedTextColor: systemPalette.highlightedText
                text: root.model.desktopBindings
                wrapMode: Text.WrapAnywhere
                font.family: "monospace"
                textFormat: Text.PlainText
                Accessible.name: text

                FocusRing {
                    shown: bindingLines.activeFocus
                    gap: 6
                    radius: 6
                }
            }
            PushButton {
                text: "Copy"
                Accessible.name: "Copy"
                onClicked: root.model.copyDesktopBindings()
            }
        }

        Repeater {
            // By count, so that a change of a binding updates the rows in place and the focus stays.
            model: root.model.rows.length

            delegate: RowLayout {
                id: shortcutRow

                required property int index
                readonly property var row: root.model.rows[index] ?? ({})

                Layout.fillWidth: true
                spacing: 12

                ColumnLayout {
                    Layout.fillWidth: true
                    spacing: 2
                    Label {
                        Layout.fillWidth: true
                        text: shortcutRow.row.title
                    }
                    Label {
                        Layout.fillWidth: true
                        visible: shortcutRow.row.assigned !== ""
                        wrapMode: Text.Wrap
                        text: "Desktop key: " + shortcutRow.row.assigned
                        color: systemPalette.placeholderText
                        font.pixelSize: 12
                        Accessible.name: text
                    }
                    Label {
                        Layout.fillWidth: true
                        visible: shortcutRow.row.problem !== ""
                        wrapMode: Text.Wrap
                        text: shortcutRow.row.problem
                        color: Style.destructive
                        font.pixelSize: 12
                        Accessible.name: text
                    }
                }
                ShortcutRecorder {
                    id: recorder
                    Layout.preferredWidth: 180
                    Layout.preferredHeight: 32
                    label: shortcutRow.row.label
                    fill: Style.control
                    accent: Style.accentText
                    isRecording: root.model.recordingRow === shortcutRow.index
                    activeFocusOnTab: true
                    accessibleName: shortcutRow.row.title + " shortcut"
                    onActivated: root.model.setRecordingRow(shortcutRow.index)
                    Keys.onReturnPressed: root.model.setRecordingRow(shortcutRow.index)
                    Keys.onSpacePressed: root.model.setRecordingRow(shortcutRow.index)
                    onRecorded: (key, modifiers) => root.model.record(shortcutRow.index, key, modifiers)
                    onFinished: root.model.finishRecording(shortcutRow.index)

                    TapHandler {
                        onTapped: root.model.setRecordingRow(shortcutRow.index)
                    }
                }
                PushButton {
                    text: "Reset"
                    enabled: !shortcutRow.row.isDefault
                    kind: "link"
                    Accessible.name: "Reset " + shortcutRow.row.title
                    onClicked: {
                        // Disabled once the default is back: the focus goes to the row's recorder.
                        root.model.reset(shortcutRow.index);
                        recorder.forceActiveFocus(Qt.TabFocusReason);
                    }
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
