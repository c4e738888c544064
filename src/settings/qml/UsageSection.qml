// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Controls.Fusion
import QtQuick.Layouts
import Quillvox.Settings

SectionPage {
    id: root

    required property UsageSettingsModel model

    title: "Usage"

    SystemPalette {
        id: periodPalette
    }

    TabBar {
        id: periods
        Layout.preferredWidth: 360
        currentIndex: root.model.periodIndex
        Accessible.name: "Period"
        onCurrentIndexChanged: root.model.periodIndex = currentIndex

        Repeater {
            model: root.model.periods
            // The chosen period in the highlight colour, as the chosen speed is: Fusion's own tabs
            // differ too little to tell at a glance.
            delegate: TabButton {
                id: tab
                required property string modelData
                text: modelData
                Accessible.name: modelData
                contentItem: Label {
                    text: tab.text
                    horizontalAlignment: Text.AlignHCenter
                    verticalAlignment: Text.AlignVCenter
                    color: tab.checked ? periodPalette.highlightedText : periodPalette.buttonText
                }
                background: Rectangle {
                    implicitHeight: 28
                    color: tab.checked ? periodPalette.highlight
                                       : (tab.hovered ? Qt.lighter(periodPalette.button, 1.08) : periodPalette.button)
                    border.color: tab.checked ? periodPalette.highlight : periodPalette.mid
                }
            }
        }
    }

    SettingsCard {
        title: "On this computer"

        RowLayout {
            Layout.fillWidth: true
            spacing: 16

            UsageFigure {
                label: "Narrations"
                value: root.model.narrationsText
            }
            UsageFigure {
                label: "Characters"
                value: root.model.charactersText
            }
        }
    }

    SettingsCard {
        visible: root.model.showsServer
        title: "Your account"

        RowLayout {
            Layout.fillWidth: true
            spacing: 16
            visible: !root.model.serverLoading && !root.model.serverFailed

            UsageFigure {
                label: "Narrations"
                value: root.model.serverNarrations
            }
            UsageFigure {
                label: "Minutes"
                value: root.model.serverMinutes
            }
        }
        BusyIndicator {
            visible: root.model.serverLoading
        }
        Label {
            visible: root.model.serverFailed
            text: "The account's usage could not be loaded."
            opacity: 0.7
        }
    }

    component UsageFigure: ColumnLayout {
        property string label
        property string value

        Layout.fillWidth: true
        Layout.preferredWidth: 1
        spacing: 2
        Accessible.name: label + " " + value

        Label {
            Layout.fillWidth: true
            text: parent.value
            font.pixelSize: 28
            font.bold: true
        }
        Label {
            text: parent.label
            opacity: 0.7
        }
    }
}
