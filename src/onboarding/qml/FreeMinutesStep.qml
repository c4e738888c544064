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
        symbol: "gift.fill"
        symbolSize: 72
        title: "You're all set!"
        subtitle: "20 free minutes have been added to your account."
    }
    ActionButton {
        anchors.horizontalCenter: parent.horizontalCenter
        anchors.bottom: parent.bottom
        prominent: true
        text: "Continue"
        onClicked: step.viewModel.advance()
    }
}
