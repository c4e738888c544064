// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Layouts
import Quillvox.Controls
import Quillvox.Settings

SectionPage {
    id: root

    required property ApiKeySettingsModel model

    title: "API Keys"

    // What was typed and not saved does not wait for the next visit.
    onVisibleChanged: if (!visible) root.model.discardDraft()

    SettingsCard {
        title: "Your OpenAI key"
        subtitle: "Used when you are not signed in. It is kept only in your keyring."

        RowLayout {
            Layout.fillWidth: true
            visible: root.model.hasKey
            spacing: 12

            Label {
                Layout.fillWidth: true
                text: root.model.maskedKey
                font.family: "monospace"
                Accessible.name: "Saved key " + text
            }
            PushButton {
                kind: "destructive"
                text: "Remove"
                Accessible.name: "Remove"
                onClicked: root.model.removeKey()
            }
        }
        RowLayout {
            Layout.fillWidth: true
            spacing: 12

            Item {
                // WORKAROUND: Qt 6.4 hands a password field to the accessibility bus without its name, so
                // the group around it carries the name.
                Layout.fillWidth: true
                implicitHeight: keyField.implicitHeight
                Accessible.role: Accessible.Grouping
                Accessible.name: "OpenAI API key"

                // Saved only on Enter or "Save": half a key left in the field when the focus moves on
                // must never replace the stored one. Escape empties it.
                TextEntry {
                    id: keyField
                    anchors.fill: parent
                    echoMode: TextInput.Password
                    text: root.model.draft
                    placeholderText: root.model.hasKey ? "Enter a new key to replace it" : "sk-…"
                    Accessible.name: "OpenAI API key"
                    onTextEdited: root.model.draft = text
                    onAccepted: root.model.saveDraft()
                    Keys.onEscapePressed: event => event.accepted = root.model.discardDraft()
                }
            }
            PushButton {
                kind: "primary"
                text: "Save"
                enabled: root.model.canSave
                Accessible.name: "Save"
                onClicked: root.model.saveDraft()
            }
        }
        Label {
            Layout.fillWidth: true
            visible: text !== ""
            text: root.model.keyProblem
            color: Style.destructive
            wrapMode: Text.WordWrap
            Accessible.name: text
        }
    }

    SettingsCard {
        title: "Speech server"
        subtitle: "Any server that offers the OpenAI speech API, such as a speech server on this computer."

        GridLayout {
            Layout.fillWidth: true
            columns: 2
            columnSpacing: 12
            rowSpacing: 8

            Label {
                text: "Server"
                // The field beside it carries the name.
                Accessible.ignored: true
            }
            TextEntry {
                Layout.fillWidth: true
                text: root.model.server
                enabled: !root.model.serverFromEnvironment
                placeholderText: "https://api.openai.com"
                Accessible.name: "Server"
                onEditingFinished: root.model.setServer(text)
                Keys.onEscapePressed: event => {
                    event.accepted = text !== root.model.server;
                    text = root.model.server;
                }
            }
            Item {
                visible: serverMessage.visible
            }
            Label {
                id: serverMessage
                Layout.fillWidth: true
                visible: text !== ""
                text: root.model.serverError !== "" ? root.model.serverError : root.model.serverNote
                color: root.model.serverError !== "" ? Style.destructive
                                                     : (root.model.serverFromEnvironment ? Style.text : Style.warning)
                wrapMode: Text.WordWrap
                Accessible.name: text
            }
            Label {
                text: "Model"
                // The field beside it carries the name.
                Accessible.ignored: true
            }
            TextEntry {
                Layout.fillWidth: true
                text: root.model.model
                placeholderText: root.model.defaultModel
                Accessible.name: "Model"
                onEditingFinished: root.model.setModel(text)
                Keys.onEscapePressed: event => {
                    event.accepted = text !== root.model.model;
                    text = root.model.model;
                }
            }
            // A chosen server's own models and request size.
            Item {
                visible: root.model.serverModels.length > 0
            }
            ComboBox {
                objectName: "serverModels"
                Layout.fillWidth: true
                visible: root.model.serverModels.length > 0
                model: root.model.serverModels
                currentIndex: root.model.serverModels.indexOf(root.model.model)
                Accessible.name: "Models on this server"
                onActivated: root.model.setModel(currentText)
            }
            Label {
                text: "Most characters per request"
                visible: root.model.isChosenServer
                Accessible.ignored: true
            }
            SpinBox {
                visible: root.model.isChosenServer
                from: 256
                to: 100000
                stepSize: 256
                editable: true
                value: root.model.maxInputChars
                Accessible.name: "Most characters per request"
                onValueModified: root.model.setMaxInputChars(value)
            }
        }
        RowLayout {
            spacing: 12

            PushButton {
                text: "Test"
                enabled: root.model.testState !== ApiKeySettingsModel.Testing
                Accessible.name: "Test"
                onClicked: root.model.test()
            }
            BusyIndicator {
                visible: root.model.testState === ApiKeySettingsModel.Testing
                implicitWidth: 24
                implicitHeight: 24
            }
            Label {
                Layout.fillWidth: true
                text: root.model.testResultText
                color: root.model.testState === ApiKeySettingsModel.Failed ? Style.destructive : Style.success
                wrapMode: Text.WordWrap
                Accessible.name: root.model.testResult
            }
        }
    }
}
