// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import Quillvox.Onboarding

// The window's content: the current step, with "Back" where the flow allows it.
Rectangle {
    id: root

    required property OnboardingViewModel viewModel

    width: 550
    height: 500
    color: Theme.background

    Loader {
        id: page
        anchors.fill: parent
        anchors.margins: Theme.margin
        sourceComponent: {
            switch (root.viewModel.currentStep) {
            case "signIn": return signIn
            case "freeMinutes": return freeMinutes
            case "permissions": return permissions
            case "tutorial": return tutorial
            case "pricing": return pricing
            case "purchaseConfirmation": return purchaseConfirmation
            case "completion": return completion
            default: return welcome
            }
        }
        // Each step slides in and settles without overshoot.
        onLoaded: entrance.restart()
        ParallelAnimation {
            id: entrance
            NumberAnimation { target: page; property: "opacity"; from: 0; to: 1; duration: 350; easing.type: Easing.OutCubic }
            NumberAnimation { target: page; property: "anchors.leftMargin"; from: Theme.margin + 24; to: Theme.margin; duration: 350; easing.type: Easing.OutCubic }
        }
    }

    ActionButton {
        visible: root.viewModel.canGoBack
        flat: true
        text: "Back"
        symbol: "chevron.left"
        x: 12
        y: 12
        onClicked: root.viewModel.previousStep()
    }

    Component { id: welcome; WelcomeStep { viewModel: root.viewModel } }
    Component { id: signIn; SignInStep { viewModel: root.viewModel } }
    Component { id: freeMinutes; FreeMinutesStep { viewModel: root.viewModel } }
    Component { id: permissions; PermissionsStep { viewModel: root.viewModel } }
    Component { id: tutorial; TutorialStep { viewModel: root.viewModel } }
    Component { id: pricing; PricingStep { viewModel: root.viewModel } }
    Component { id: purchaseConfirmation; PurchaseConfirmationStep { viewModel: root.viewModel } }
    Component { id: completion; CompletionStep { viewModel: root.viewModel } }
}
