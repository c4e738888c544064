// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Layouts
import Quillvox.Controls
import Quillvox.Settings

SectionPage {
    id: root

    required property UsageSettingsModel model

    title: "Usage"

    SegmentedChoice {
        Layout.preferredWidth: 360
        model: root.model.periods
        currentIndex: root.model.periodIndex
        segmentRole: Accessible.PageTab
        Accessible.role: Accessible.PageTabList
        Accessible.name: "Period"
        onChosen: index => root.model.periodIndex = index
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
