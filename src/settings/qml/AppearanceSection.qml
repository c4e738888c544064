// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Templates as T
import QtQuick.Layouts
import Quillvox.Controls
import Quillvox.Settings

SectionPage {
    id: root

    required property AppearanceSettingsModel model

    title: "Appearance"

    SystemPalette {
        id: palette
    }

    SettingsCard {
        title: "Widget"
        subtitle: "How the floating widget looks. Changes apply at once."

        RowLayout {
            Layout.fillWidth: true
            spacing: 12

            Repeater {
                model: root.model.appearances

                delegate: T.AbstractButton {
                    id: option

                    required property var modelData
                    readonly property bool selected: root.model.appearance === modelData.name

                    Layout.fillWidth: true
                    Layout.preferredWidth: 1
                    implicitHeight: 72
                    Accessible.role: Accessible.RadioButton
                    Accessible.checkable: true
                    Accessible.checked: selected
                    Accessible.name: modelData.name
                    Accessible.description: modelData.description
                    onClicked: root.model.selectAppearance(modelData.name)

                    FocusRing {
                        shown: option.visualFocus
                        gap: 4
                        radius: 12
                    }

                    background: Rectangle {
                        radius: 8
                        color: option.selected ? Style.accentTint : option.hovered ? Style.hover : "transparent"
                        border.width: option.selected ? 2 : 1
                        border.color: option.selected ? Style.accentText : Style.controlBorder
                    }
                    contentItem: RowLayout {
                        spacing: 12

                        Rectangle {
                            Layout.leftMargin: 12
                            implicitWidth: 48
                            implicitHeight: 32
                            radius: 8
                            color: option.modelData.panel
                            border.color: Qt.rgba(0.5, 0.5, 0.5, 0.5)

                            Row {
                                anchors.centerIn: parent
                                spacing: 3
                                Repeater {
                                    model: [10, 18, 14, 20, 12]
                                    delegate: Rectangle {
                                        required property int modelData
                                        anchors.verticalCenter: parent.verticalCenter
                                        width: 3
                                        height: modelData
                                        radius: 1.5
                                        color: option.modelData.ink
                                    }
                                }
                            }
                        }
                        ColumnLayout {
                            spacing: 2
                            Label {
                                text: option.modelData.name
                                font.bold: true
                            }
                            Label {
                                text: option.modelData.description
                                opacity: 0.7
                            }
                        }
                        Item {
                            Layout.fillWidth: true
                        }
                    }
                }
            }
        }
    }

    SettingsCard {
        title: "Theme"
        subtitle: "The colours of the waveform."

        GridLayout {
            Layout.fillWidth: true
            columns: 4
            columnSpacing: 12
            rowSpacing: 12

            Repeater {
                model: root.model.themes

                delegate: T.AbstractButton {
                    id: swatch

                    required property var modelData
                    readonly property bool selected: root.model.theme === modelData.name

                    Layout.fillWidth: true
                    Layout.preferredWidth: 1
                    implicitHeight: 76
                    Accessible.role: Accessible.RadioButton
                    Accessible.checkable: true
                    Accessible.checked: selected
                    Accessible.name: modelData.name
                    onClicked: root.model.selectTheme(modelData.name)

                    FocusRing {
                        shown: swatch.visualFocus
                        gap: 4
                        radius: 12
                    }

                    contentItem: ColumnLayout {
                        spacing: 6

                        Rectangle {
                            Layout.fillWidth: true
                            Layout.preferredHeight: 44
                            radius: 8
                            border.width: swatch.selected ? 3 : 1
                            border.color: swatch.selected ? Style.accentText : Style.controlBorder
                            gradient: Gradient {
                                orientation: Gradient.Horizontal
                                GradientStop { position: 0.0; color: swatch.modelData.colors[0] }
                                GradientStop { position: 0.5; color: swatch.modelData.colors[1] }
                                GradientStop { position: 1.0; color: swatch.modelData.colors[2] }
                            }
                        }
                        Label {
                            Layout.alignment: Qt.AlignHCenter
                            text: swatch.modelData.name
                            font.bold: swatch.selected
                        }
                    }
                }
            }
        }
    }

    SettingsCard {
        SwitchRow {
            text: "Show the widget when using my own API key"
            checked: root.model.showWidgetWithOwnKey
            onToggled: on => root.model.showWidgetWithOwnKey = on
        }
        SwitchRow {
            text: "Follow along: show the sentence being read in the expanded controls"
            checked: root.model.showFollowAlong
            onToggled: on => root.model.showFollowAlong = on
        }
    }
}
