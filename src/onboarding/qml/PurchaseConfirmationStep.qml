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

        StepHeader {
            symbol: "checkmark.circle.fill"
            symbolColor: Theme.success
            symbolSize: 72
            title: "Purchase Complete!"
            subtitle: step.viewModel.purchasedMinutesText
        }
        Text {
            width: parent.width
            text: "Your balance: " + step.viewModel.balanceText
            color: Theme.text
            font.pixelSize: Theme.headlineSize
            font.weight: Font.DemiBold
            horizontalAlignment: Text.AlignHCenter
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
