// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Layouts
import Quillvox.Controls

// Shows the account managers' published values; every action is theirs.
SectionPage {
    id: root

    // The AuthManager and BalanceManager.
    required property QtObject auth
    required property QtObject balance

    title: "Account"

    SystemPalette {
        id: palette
    }

    SettingsCard {
        visible: !root.auth.isSignedIn
        title: "Sign in to Quillvox"
        subtitle: "Narrate with the minutes of your Quillvox account. Sign-in continues in your browser."

        ColumnLayout {
            Layout.fillWidth: false
            Layout.preferredWidth: 260
            Layout.topMargin: 4
            spacing: 8

            // Apple's button in its own black (white on a dark palette), as onboarding draws it.
            PushButton {
                Layout.fillWidth: true
                text: "Continue with Apple"
                fill: Style.text
                ink: Style.window
                enabled: !root.auth.isLoading
                Accessible.name: "Continue with Apple"
                onClicked: root.auth.signIn(false)
            }
            PushButton {
                Layout.fillWidth: true
                text: "Continue with Google"
                enabled: !root.auth.isLoading
                Accessible.name: "Continue with Google"
                onClicked: root.auth.signIn(true)
            }
        }
        RowLayout {
            visible: root.auth.isLoading
            spacing: 8
            BusyIndicator {
                implicitWidth: 24
                implicitHeight: 24
            }
            Label {
                text: "Waiting for the browser…"
                opacity: 0.7
            }
        }
        Label {
            Layout.fillWidth: true
            visible: text !== ""
            text: root.auth.currentErrorDescription
            color: Style.destructive
            wrapMode: Text.WordWrap
            Accessible.name: text
        }
    }

    SettingsCard {
        visible: root.auth.isSignedIn

        RowLayout {
            Layout.fillWidth: true
            spacing: 12

            Rectangle {
                implicitWidth: 44
                implicitHeight: 44
                radius: 22
                color: Style.accent
                Label {
                    anchors.centerIn: parent
                    text: root.auth.email.charAt(0).toUpperCase()
                    color: Style.textOnAccent
                    font.pixelSize: 20
                    font.bold: true
                }
            }
            ColumnLayout {
                Layout.fillWidth: true
                spacing: 2
                Label {
                    Layout.fillWidth: true
                    text: "Signed in as"
                    opacity: 0.7
                }
                Label {
                    text: root.auth.email
                    font.bold: true
                    Accessible.name: text
                }
            }
            PushButton {
                text: "Sign Out"
                Accessible.name: "Sign Out"
                onClicked: root.auth.signOut()
            }
        }
    }

    SettingsCard {
        visible: root.auth.isSignedIn
        title: "Balance"

        RowLayout {
            Layout.fillWidth: true
            spacing: 12

            Label {
                Layout.fillWidth: true
                text: root.balance.formattedBalance
                font.pixelSize: 28
                font.bold: true
                Accessible.name: "Balance " + text
            }
            PushButton {
                text: "Buy minutes"
                kind: "primary"
                Accessible.name: "Buy minutes"
                onClicked: root.balance.openPurchasePage()
            }
        }
        Label {
            Layout.fillWidth: true
            visible: text !== ""
            text: root.balance.lastError
            opacity: 0.7
            wrapMode: Text.WordWrap
        }
    }
}
