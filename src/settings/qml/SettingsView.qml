// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Window
import QtQuick.Layouts
import Quillvox.Settings

// The settings window's content: the sections in a sidebar, the chosen one beside it.
Rectangle {
    id: root

    required property SettingsViewModel viewModel

    implicitWidth: 900
    implicitHeight: 600
    color: systemPalette.window

    focus: true
    Keys.onEscapePressed: Window.window.close()

    SystemPalette {
        id: systemPalette
    }

    // A section is built when first shown and kept after: opening Settings builds one, not all.
    component SectionLoader: Loader {
        required property bool available
        property bool shown: false

        active: available && shown
        Component.onCompleted: shown = StackLayout.isCurrentItem
        StackLayout.onIsCurrentItemChanged: if (StackLayout.isCurrentItem) shown = true
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

            SectionLoader {
                available: root.viewModel.auth !== null
                sourceComponent: AccountSection {
                    auth: root.viewModel.auth
                    balance: root.viewModel.balance
                }
            }
            SectionLoader {
                available: root.viewModel.voice !== null
                sourceComponent: VoiceSection {
                    model: root.viewModel.voice
                }
            }
            SectionLoader {
                available: root.viewModel.appearance !== null
                sourceComponent: AppearanceSection {
                    model: root.viewModel.appearance
                }
            }
            SectionLoader {
                available: root.viewModel.shortcuts !== null
                sourceComponent: ShortcutsSection {
                    model: root.viewModel.shortcuts
                }
            }
            SectionLoader {
                available: root.viewModel.apiKeys !== null
                sourceComponent: ApiKeysSection {
                    model: root.viewModel.apiKeys
                }
            }
            SectionLoader {
                available: root.viewModel.history !== null
                sourceComponent: HistorySection {
                    model: root.viewModel.history
                }
            }
            SectionLoader {
                available: root.viewModel.usage !== null
                sourceComponent: UsageSection {
                    model: root.viewModel.usage
                }
            }
            AboutSection {
                objectName: "aboutSection"
                version: root.viewModel.version
                about: root.viewModel.about
            }
        }
    }
}
