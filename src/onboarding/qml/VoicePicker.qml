// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import Quillvox.Controls
import QtQuick.Templates as T

// The voices as a grid: a click chooses the voice and plays its sample.
Grid {
    id: picker

    required property var speech
    // {id, name}
    required property var voices

    columns: 4
    // Four across the window's content width, with room for the longest name set in bold.
    spacing: 8

    Repeater {
        model: picker.voices
        delegate: T.AbstractButton {
            id: card
            required property var modelData
            readonly property bool chosen: picker.speech.selectedVoice === modelData.id

            width: 114
            height: 56
            hoverEnabled: true
            Accessible.name: modelData.name
            Accessible.role: Accessible.RadioButton
            Accessible.checkable: true
            Accessible.checked: chosen
            FocusRing {
                shown: card.visualFocus
            }
            onClicked: {
                picker.speech.selectedVoice = modelData.id
                picker.speech.playVoicePreview(modelData.id)
            }
            background: Rectangle {
                radius: Theme.radius
                color: card.chosen ? Theme.accentTint
                                   : (card.hovered ? Theme.surface : Theme.background)
                border.width: card.chosen ? 2 : 1
                border.color: card.chosen ? Theme.accent : Theme.border
            }
            contentItem: Row {
                leftPadding: 10
                spacing: 6
                Symbol {
                    name: "play.circle"
                    color: card.chosen ? Theme.accent : Theme.secondaryText
                    size: 18
                    anchors.verticalCenter: parent.verticalCenter
                }
                Text {
                    text: card.Accessible.name
                    color: Theme.text
                    font.pixelSize: Theme.bodySize
                    font.weight: card.chosen ? Font.DemiBold : Font.Normal
                    anchors.verticalCenter: parent.verticalCenter
                }
            }
        }
    }
}
