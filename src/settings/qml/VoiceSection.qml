// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Controls.Fusion
import QtQuick.Layouts
import Quillvox.Settings

SectionPage {
    id: root

    required property VoiceSettingsModel model

    title: "Voice"

    SettingsCard {
        title: "Voice"
        subtitle: "The voice that reads your text. Play a sample to hear it."

        GridLayout {
            Layout.fillWidth: true
            columns: 4
            columnSpacing: 8
            rowSpacing: 8

            Repeater {
                model: root.model.voices

                delegate: RowLayout {
                    required property var modelData

                    Layout.fillWidth: true
                    Layout.preferredWidth: 1
                    spacing: 0

                    RadioButton {
                        Layout.fillWidth: true
                        text: modelData.label
                        checkable: false
                        checked: root.model.voice === modelData.name
                        Accessible.name: modelData.label
                        onClicked: root.model.selectVoice(modelData.name)

                        FocusRing {
                            shown: parent.visualFocus
                            radius: 4
                        }
                    }
                    ToolButton {
                        text: "▶"
                        Accessible.name: "Preview " + modelData.label
                        ToolTip.visible: hovered
                        ToolTip.text: "Play a sample"
                        onClicked: root.model.previewVoice(modelData.name)

                        FocusRing {
                            shown: parent.visualFocus
                            radius: 4
                        }
                    }
                }
            }
        }
    }

    SettingsCard {
        title: "Style"
        subtitle: "How the voice delivers the text."

        GridLayout {
            Layout.fillWidth: true
            columns: 2
            columnSpacing: 16
            rowSpacing: 4

            Repeater {
                model: root.model.styles

                delegate: ColumnLayout {
                    required property var modelData

                    Layout.fillWidth: true
                    Layout.preferredWidth: 1
                    spacing: 0

                    RadioButton {
                        id: styleButton
                        text: modelData.name
                        checkable: false
                        checked: root.model.style === modelData.name
                        Accessible.name: modelData.name
                        Accessible.description: modelData.subtitle
                        onClicked: root.model.selectStyle(modelData.name)

                        contentItem: RowLayout {
                            spacing: 6
                            Image {
                                Layout.leftMargin: styleButton.indicator.width + styleButton.spacing
                                sourceSize: Qt.size(18, 18)
                                source: "image://quillvox-icons/" + modelData.icon + "/"
                                        + String(styleButton.checked ? styleButton.palette.highlight
                                                                     : styleButton.palette.text).substring(1)
                                Accessible.ignored: true
                            }
                            Label {
                                text: styleButton.text
                            }
                        }
                        FocusRing {
                            shown: styleButton.visualFocus
                            radius: 4
                        }
                    }
                    Label {
                        Layout.leftMargin: styleButton.leftPadding + styleButton.indicator.width + styleButton.spacing
                        Layout.topMargin: -6
                        text: modelData.subtitle
                        opacity: 0.65
                        font.pixelSize: 12
                    }
                }
            }
        }
    }

    SettingsCard {
        title: "Speed"
        subtitle: "Playback speed for this session; every start begins at 1×."

        RowLayout {
            spacing: 8

            Repeater {
                model: root.model.speeds

                delegate: Button {
                    required property var modelData

                    text: modelData.label
                    // The chosen speed in the highlight colour: Fusion's checked look barely differs
                    // on a dark palette.
                    checked: root.model.speed === modelData.value
                    highlighted: checked
                    Accessible.name: "Speed " + modelData.label
                    onClicked: root.model.selectSpeed(modelData.value)
                }
            }
        }
    }
}
