// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import Quillvox.Onboarding

Item {
    id: step

    required property OnboardingViewModel viewModel

    Column {
        anchors.top: parent.top
        anchors.topMargin: 4
        width: parent.width
        spacing: 10

        StepHeader {
            title: "Ready for more?"
            subtitle: "Get additional minutes to keep listening"
        }
        Symbol {
            name: "sparkles"
            color: Theme.accent
            size: 28
            anchors.horizontalCenter: parent.horizontalCenter
        }
        Item { width: 1; height: 8 }
        Row {
            anchors.horizontalCenter: parent.horizontalCenter
            spacing: 14
            Repeater {
                model: step.viewModel.packages
                delegate: PackageCard {
                    required property var modelData
                    package_: modelData
                    chosen: step.viewModel.highlightedPackage === modelData.id
                    onClicked: step.viewModel.highlightedPackage = modelData.id
                }
            }
        }
        Text {
            visible: text !== ""
            width: parent.width
            text: step.viewModel.purchaseError
            color: Theme.error
            font.pixelSize: Theme.captionSize + 1
            horizontalAlignment: Text.AlignHCenter
            wrapMode: Text.WordWrap
            Accessible.name: text
        }
    }
    Column {
        anchors.horizontalCenter: parent.horizontalCenter
        anchors.bottom: parent.bottom
        spacing: 4
        ActionButton {
            prominent: true
            text: step.viewModel.isPurchasing ? "Opening..." : "Continue"
            enabled: !step.viewModel.isPurchasing
            onClicked: step.viewModel.purchase(step.viewModel.highlightedPackage)
        }
        ActionButton {
            anchors.horizontalCenter: parent.horizontalCenter
            flat: true
            text: "Start with free minutes"
            onClicked: step.viewModel.advance()
        }
    }
}
