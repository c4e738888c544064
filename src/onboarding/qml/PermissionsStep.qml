// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import Quillvox.Onboarding

Item {
    id: step

    required property OnboardingViewModel viewModel
    readonly property bool granted: viewModel.hasPermissions

    Column {
        anchors.centerIn: parent
        anchors.verticalCenterOffset: -28
        width: 400
        spacing: Theme.spacing

        StepHeader {
            symbol: "hand.tap.fill"
            symbolSize: 72
            title: "Accessibility"
        }
        Item { width: 1; height: 4 }
        ActionButton {
            anchors.horizontalCenter: parent.horizontalCenter
            text: "Grant Permission"
            prominent: !step.granted
            enabled: !step.granted
            onClicked: step.viewModel.requestPermission()
        }
        Row {
            spacing: 8
            anchors.horizontalCenter: parent.horizontalCenter
            Symbol {
                name: step.granted ? "checkmark.circle.fill" : "exclamationmark.circle.fill"
                color: step.granted ? Theme.success : Theme.warning
                size: 20
                anchors.verticalCenter: parent.verticalCenter
                Accessible.ignored: false
                Accessible.role: Accessible.Graphic
                Accessible.name: step.granted ? "Permission granted" : "Permission missing"
            }
            Text {
                text: step.granted ? "Quillvox can read the text you select."
                                   : "Quillvox cannot read selected text yet."
                color: Theme.secondaryText
                font.pixelSize: Theme.bodySize
                anchors.verticalCenter: parent.verticalCenter
                Accessible.name: text
            }
        }
        Text {
            visible: step.viewModel.showPermissionError && text !== ""
            width: parent.width
            text: step.viewModel.permissionHint
            color: Theme.warning
            font.pixelSize: Theme.captionSize + 1
            horizontalAlignment: Text.AlignHCenter
            wrapMode: Text.WordWrap
            Accessible.name: text
        }
    }
    ActionButton {
        anchors.horizontalCenter: parent.horizontalCenter
        anchors.bottom: parent.bottom
        prominent: step.granted
        text: "Continue"
        onClicked: step.viewModel.advance()
    }
}
