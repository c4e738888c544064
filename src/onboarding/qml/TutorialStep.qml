// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import Quillvox.Onboarding

// The hands-on part: what Quillvox does, a real narration, then voice, appearance and the shortcut.
Item {
    id: step

    required property OnboardingViewModel viewModel
    readonly property string phase: viewModel.tutorialPhase

    // Intro
    Item {
        anchors.fill: parent
        visible: step.phase === "intro"
        StepHeader {
            anchors.centerIn: parent
            anchors.verticalCenterOffset: -40
            width: 400
            symbol: "waveform.and.mic"
            symbolSize: 72
            title: "Quillvox works everywhere"
            subtitle: "Highlight any text, press a hotkey, and listen."
        }
        Column {
            anchors.horizontalCenter: parent.horizontalCenter
            anchors.bottom: parent.bottom
            spacing: 4
            ActionButton {
                prominent: true
                text: "Let's try it"
                onClicked: step.viewModel.nextTutorialPhase()
            }
            ActionButton {
                anchors.horizontalCenter: parent.horizontalCenter
                flat: true
                text: "Skip tutorial"
                onClicked: step.viewModel.advance()
            }
        }
    }

    // Try it
    Item {
        anchors.fill: parent
        visible: step.phase === "tryIt"
        Column {
            anchors.centerIn: parent
            anchors.verticalCenterOffset: -28
            width: 440
            spacing: 16
            StepHeader {
                title: "Try it now"
                subtitle: "Select the text below, then press " + step.viewModel.shortcutText + " to narrate"
            }
            Rectangle {
                width: parent.width
                height: sample.implicitHeight + 40
                radius: Theme.radius
                color: Theme.surface
                border.width: sample.activeFocus ? 2 : 1
                border.color: sample.activeFocus ? Theme.accent : Theme.border
                // Read-only but focused and selectable, so that capture reads its selection directly.
                TextEdit {
                    id: sample
                    anchors.fill: parent
                    anchors.margins: 20
                    text: "Welcome to Quillvox. You just made this text talk."
                    color: Theme.text
                    font.pixelSize: Theme.headlineSize + 2
                    wrapMode: TextEdit.WordWrap
                    horizontalAlignment: TextEdit.AlignHCenter
                    readOnly: true
                    selectByMouse: true
                    persistentSelection: true
                    selectionColor: Theme.accent
                    selectedTextColor: Theme.textOnAccent
                    focus: step.phase === "tryIt"
                    Accessible.name: text
                }
            }
            Row {
                visible: step.viewModel.hasCompletedTryIt
                spacing: 8
                anchors.horizontalCenter: parent.horizontalCenter
                Symbol {
                    name: "checkmark.circle.fill"
                    color: Theme.success
                    size: 22
                    anchors.verticalCenter: parent.verticalCenter
                }
                Text {
                    text: "Great! You did it!"
                    color: Theme.success
                    font.pixelSize: Theme.headlineSize
                    font.weight: Font.DemiBold
                    anchors.verticalCenter: parent.verticalCenter
                    Accessible.name: text
                }
            }
        }
        ActionButton {
            anchors.horizontalCenter: parent.horizontalCenter
            anchors.bottom: parent.bottom
            prominent: step.viewModel.hasCompletedTryIt
            text: "Next"
            onClicked: step.viewModel.nextTutorialPhase()
        }
    }

    // Voice
    Item {
        anchors.fill: parent
        visible: step.phase === "voice"
        Column {
            anchors.top: parent.top
            anchors.topMargin: 16
            width: parent.width
            spacing: 24
            StepHeader {
                title: "Choose your voice"
                subtitle: "Pick a voice that sounds right to you"
            }
            VoicePicker {
                anchors.horizontalCenter: parent.horizontalCenter
                speech: step.viewModel.speech
                voices: step.viewModel.voices
            }
        }
        ActionButton {
            anchors.horizontalCenter: parent.horizontalCenter
            anchors.bottom: parent.bottom
            prominent: true
            text: "Next"
            onClicked: step.viewModel.nextTutorialPhase()
        }
    }

    // Appearance
    Item {
        anchors.fill: parent
        visible: step.phase === "appearance"
        AppearancePicker {
            anchors.top: parent.top
            width: parent.width
            viewModel: step.viewModel
        }
        Row {
            anchors.horizontalCenter: parent.horizontalCenter
            anchors.bottom: parent.bottom
            spacing: Theme.spacing
            ActionButton {
                implicitWidth: 140
                text: "Skip"
                onClicked: step.viewModel.skipAppearance()
            }
            ActionButton {
                implicitWidth: 140
                prominent: true
                text: "Next"
                onClicked: step.viewModel.nextTutorialPhase()
            }
        }
    }

    // Shortcut
    Item {
        anchors.fill: parent
        visible: step.phase === "shortcut"
        Column {
            anchors.centerIn: parent
            anchors.verticalCenterOffset: -28
            width: 420
            spacing: 20
            StepHeader {
                title: "Your shortcut"
                subtitle: "Use this keyboard shortcut to narrate selected text anywhere"
            }
            Row {
                anchors.horizontalCenter: parent.horizontalCenter
                spacing: 8
                Accessible.role: Accessible.StaticText
                Accessible.name: step.viewModel.shortcutText
                Repeater {
                    model: step.viewModel.shortcutKeys
                    delegate: Rectangle {
                        required property string modelData
                        width: Math.max(52, cap.implicitWidth + 28)
                        height: 52
                        radius: 10
                        color: Theme.surface
                        border.color: Theme.border
                        Rectangle {
                            anchors.left: parent.left
                            anchors.right: parent.right
                            anchors.bottom: parent.bottom
                            height: 3
                            radius: 2
                            color: Theme.border
                        }
                        Text {
                            id: cap
                            anchors.centerIn: parent
                            text: parent.modelData
                            color: Theme.text
                            font.pixelSize: Theme.headlineSize + 2
                            font.weight: Font.DemiBold
                        }
                    }
                }
            }
            Text {
                width: parent.width
                text: "You can change this anytime in Settings → Shortcuts"
                color: Theme.secondaryText
                font.pixelSize: Theme.captionSize + 1
                horizontalAlignment: Text.AlignHCenter
                wrapMode: Text.WordWrap
                Accessible.name: text
            }
        }
        ActionButton {
            anchors.horizontalCenter: parent.horizontalCenter
            anchors.bottom: parent.bottom
            prominent: true
            text: "Finish Setup"
            onClicked: step.viewModel.advance()
        }
    }
}
