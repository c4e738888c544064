// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Layouts
import Quillvox.Settings

// The settings window's content: the sections in a sidebar, the chosen one beside it.
Rectangle {
    id: root

    required property SettingsViewModel viewModel

    implicitWidth: 900
    implicitHeight: 600
    color: systemPalette.window

    SystemPalette {
        id: systemPalette
    }

    RowLayout {
        anchors.fill: parent
        spacing: 0

        SettingsSidebar {
            Layout.fillHeight: true
            Layout.preferredWidth: 200
            sections: root.viewModel.sections
            currentIndex: root.viewModel.currentIndex
            onSectionChosen: label => root.viewModel.selectLabel(label)
        }

        StackLayout {
            objectName: "sectionPages"
            Layout.fillWidth: true
            Layout.fillHeight: true
            currentIndex: root.viewModel.currentIndex

            SectionPage {
                title: "Account"
            }
            SectionPage {
                title: "Voice"
            }
            SectionPage {
                title: "Appearance"
            }
            SectionPage {
                title: "Shortcuts"
            }
            SectionPage {
                title: "API Keys"
            }
            SectionPage {
                title: "History"
            }
            SectionPage {
                title: "Usage"
            }
            AboutSection {
                version: root.viewModel.version
            }
        }
    }
}
