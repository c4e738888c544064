// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import Quillvox.Onboarding

Item {
    id: step

    required property OnboardingViewModel viewModel

    Column {
        anchors.centerIn: parent
        anchors.verticalCenterOffset: -28
        width: 400
        spacing: Theme.spacing

        Symbol {
            name: "waveform.circle.fill"
            color: Theme.accent
            size: 88
            anchors.horizontalCenter: parent.horizontalCenter
        }
        Text {
            text: "Quillvox"
            color: Theme.text
            font.pixelSize: 34
            font.weight: Font.Bold
            anchors.horizontalCenter: parent.horizontalCenter
            Accessible.name: text
        }
        Item { width: 1; height: 4 }
        Text {
            width: parent.width
            text: "Welcome to high-quality narration."
            color: Theme.text
            font.pixelSize: Theme.headlineSize + 2
            font.weight: Font.DemiBold
            horizontalAlignment: Text.AlignHCenter
            wrapMode: Text.WordWrap
            Accessible.name: text
        }
        Text {
            width: parent.width
            text: "Experience real-time, AI-powered text-to-speech directly from your favorite apps."
            color: Theme.secondaryText
            font.pixelSize: Theme.bodySize
            horizontalAlignment: Text.AlignHCenter
            wrapMode: Text.WordWrap
            lineHeight: 1.15
            Accessible.name: text
        }
    }
    ActionButton {
        anchors.horizontalCenter: parent.horizontalCenter
        anchors.bottom: parent.bottom
        prominent: true
        text: "Continue"
        onClicked: step.viewModel.advance()
    }
}
