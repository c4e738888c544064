// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Controls.Fusion
import QtQuick.Layouts
import Quillvox.Settings

SectionPage {
    id: root

    required property HistorySettingsModel model

    title: "History"

    SystemPalette {
        id: palette
    }

    RowLayout {
        Layout.fillWidth: true

        Label {
            Layout.fillWidth: true
            text: "Your last ten narrations, kept on this computer for replay."
            opacity: 0.7
            wrapMode: Text.WordWrap
        }
        Button {
            text: "Clear All"
            enabled: root.model.rows.length > 0
            Accessible.name: "Clear All"
            onClicked: confirmation.open()
        }
    }

    SettingsCard {
        Label {
            visible: root.model.rows.length === 0
            Layout.alignment: Qt.AlignHCenter
            Layout.topMargin: 16
            Layout.bottomMargin: 16
            text: "No narrations yet"
            opacity: 0.6
            Accessible.name: text
        }

        Repeater {
            model: root.model.rows

            delegate: ColumnLayout {
                required property var modelData
                required property int index

                Layout.fillWidth: true
                spacing: 12

                Rectangle {
                    visible: index > 0
                    Layout.fillWidth: true
                    implicitHeight: 1
                    color: Qt.rgba(palette.text.r, palette.text.g, palette.text.b, 0.1)
                }
                RowLayout {
                    Layout.fillWidth: true
                    spacing: 8

                    RoundButton {
                        text: modelData.playing ? "❚❚" : "▶"
                        flat: false
                        Accessible.name: (modelData.playing ? "Pause " : "Play ") + modelData.title
                        onClicked: root.model.replay(modelData.id)
                    }
                    ColumnLayout {
                        Layout.fillWidth: true
                        spacing: 2
                        Label {
                            Layout.fillWidth: true
                            text: modelData.title
                            elide: Text.ElideRight
                            Accessible.name: text
                        }
                        Label {
                            text: modelData.voice + "  ·  " + modelData.date + "  ·  " + modelData.duration
                            opacity: 0.65
                            font.pixelSize: 12
                        }
                    }
                    Button {
                        text: "Export…"
                        flat: true
                        Accessible.name: "Export " + modelData.title
                        onClicked: root.model.exportSession(modelData.id)
                    }
                    Button {
                        text: "Delete"
                        flat: true
                        Accessible.name: "Delete " + modelData.title
                        onClicked: root.model.remove(modelData.id)
                    }
                }
            }
        }
    }

    Label {
        Layout.fillWidth: true
        visible: text !== ""
        text: root.model.exportMessage
        wrapMode: Text.WordWrap
        Accessible.name: text
    }

    Dialog {
        id: confirmation
        parent: root
        anchors.centerIn: parent
        modal: true
        title: "Clear all history?"

        Label {
            text: "Every kept narration and its audio will be deleted."
        }
        footer: DialogButtonBox {
            Button {
                text: "Cancel"
                DialogButtonBox.buttonRole: DialogButtonBox.RejectRole
                Accessible.name: "Cancel"
            }
            Button {
                text: "Delete All"
                DialogButtonBox.buttonRole: DialogButtonBox.AcceptRole
                Accessible.name: "Delete All"
            }
        }
        onAccepted: root.model.clearAll()
    }
}
