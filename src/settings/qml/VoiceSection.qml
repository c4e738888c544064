// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Layouts
import Quillvox.Controls
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

                    RadioRow {
                        Layout.fillWidth: true
                        text: modelData.label
                        checked: root.model.voice === modelData.name
                        onClicked: root.model.selectVoice(modelData.name)
                    }
                    PushButton {
                        kind: "link"
                        implicitWidth: 28
                        implicitHeight: 28
                        text: "▶"
                        Accessible.name: "Preview " + modelData.label
                        onClicked: root.model.previewVoice(modelData.name)

                        ToolTip {
                            text: "Play a sample"
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

                delegate: RadioRow {
                    required property var modelData

                    Layout.fillWidth: true
                    Layout.preferredWidth: 1
                    text: modelData.name
                    detail: modelData.subtitle
                    symbol: modelData.icon
                    checked: root.model.style === modelData.name
                    onClicked: root.model.selectStyle(modelData.name)
                }
            }
        }
    }

    SettingsCard {
        title: "Speed"
        subtitle: "Playback speed for this session; every start begins at 1×."

        SegmentedChoice {
            model: root.model.speeds.map(speed => speed.label)
            currentIndex: root.model.speeds.findIndex(speed => speed.value === root.model.speed)
            namePrefix: "Speed "
            onChosen: index => root.model.selectSpeed(root.model.speeds[index].value)
        }
    }
}
