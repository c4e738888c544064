// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import Quillvox.Onboarding

Item {
    id: step

    required property OnboardingViewModel viewModel

    StepHeader {
        anchors.centerIn: parent
        anchors.verticalCenterOffset: -28
        width: 400
        symbol: "headphones"
        symbolSize: 72
        title: "That's it!"
        subtitle: "Happy listening"
    }
    ActionButton {
        anchors.horizontalCenter: parent.horizontalCenter
        anchors.bottom: parent.bottom
        prominent: true
        text: "Get Started"
        onClicked: step.viewModel.advance()
    }
}
