// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import Quillvox.Controls
import Quillvox.Onboarding

Item {
    id: step

    required property OnboardingViewModel viewModel

    Column {
        anchors.centerIn: parent
        width: 400
        spacing: Theme.spacing

        StepHeader {
            title: "Create your account"
            subtitle: "Your account lets you purchase minutes and use Quillvox across devices."
        }
        Item { width: 1; height: 12 }
        ActionButton {
            width: 300
            anchors.horizontalCenter: parent.horizontalCenter
            text: "Continue with Apple"
            symbol: "apple.logo"
            fill: Theme.text
            ink: Theme.background
            enabled: step.viewModel.canSignIn
            onClicked: step.viewModel.signIn(false)
        }
        ActionButton {
            width: 300
            anchors.horizontalCenter: parent.horizontalCenter
            text: "Continue with Google"
            symbol: "g.circle.fill"
            enabled: step.viewModel.canSignIn
            onClicked: step.viewModel.signIn(true)
        }
        Row {
            visible: step.viewModel.isSigningIn
            spacing: 8
            anchors.horizontalCenter: parent.horizontalCenter
            BusyIndicator {
                width: 20
                height: 20
                running: parent.visible
                Accessible.ignored: true
            }
            Text {
                text: "Signing in..."
                color: Theme.secondaryText
                font.pixelSize: Theme.bodySize
                anchors.verticalCenter: parent.verticalCenter
                Accessible.name: text
            }
        }
        Text {
            visible: text !== ""
            width: parent.width
            text: step.viewModel.signInError
            color: Theme.error
            font.pixelSize: Theme.captionSize + 1
            horizontalAlignment: Text.AlignHCenter
            wrapMode: Text.WordWrap
            Accessible.name: text
        }
    }
    ActionButton {
        anchors.horizontalCenter: parent.horizontalCenter
        anchors.bottom: parent.bottom
        flat: true
        text: "Use my own API key"
        symbol: "key.fill"
        onClicked: step.viewModel.useOwnApiKey()
    }
}
