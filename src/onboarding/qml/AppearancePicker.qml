// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import Quillvox.Controls
import QtQuick.Templates as T
import Quillvox.Onboarding

// Light or dark, and the accent theme; the floating widget shows each change as it is made.
Column {
    id: picker

    required property OnboardingViewModel viewModel
    readonly property var speech: viewModel.speech

    spacing: 14

    StepHeader {
        title: "Customize the widget's appearance"
        subtitle: "Pick a theme"
    }
    Text {
        text: "Widget Style"
        color: Theme.text
        font.pixelSize: Theme.bodySize
        font.weight: Font.DemiBold
        Accessible.name: text
    }
    Row {
        spacing: Theme.spacing
        Repeater {
            model: picker.viewModel.appearances
            delegate: T.AbstractButton {
                id: style
                required property var modelData
                readonly property bool chosen: picker.speech.widgetAppearance === modelData.name

                width: (picker.width - Theme.spacing) / 2
                height: 60
                hoverEnabled: true
                Accessible.name: modelData.name
                Accessible.description: modelData.detail
                Accessible.role: Accessible.RadioButton
                Accessible.checkable: true
                Accessible.checked: chosen
                onClicked: picker.speech.widgetAppearance = modelData.name
                FocusRing {
                    shown: style.visualFocus
                }
                background: Rectangle {
                    radius: Theme.radius
                    color: style.chosen ? Theme.accentTint
                                        : (style.hovered ? Theme.surface : Theme.background)
                    border.width: style.chosen ? 2 : 1
                    border.color: style.chosen ? Theme.accent : Theme.border
                }
                contentItem: Row {
                    leftPadding: 16
                    spacing: 12
                    Symbol {
                        name: style.modelData.symbol
                        color: style.chosen ? Theme.accent : Theme.secondaryText
                        size: 24
                        anchors.verticalCenter: parent.verticalCenter
                    }
                    Column {
                        anchors.verticalCenter: parent.verticalCenter
                        spacing: 2
                        Text {
                            text: style.modelData.name
                            color: Theme.text
                            font.pixelSize: Theme.bodySize
                            font.weight: Font.DemiBold
                        }
                        Text {
                            text: style.modelData.detail
                            color: Theme.secondaryText
                            font.pixelSize: Theme.captionSize
                        }
                    }
                }
            }
        }
    }
    Text {
        text: "Accent Theme"
        color: Theme.text
        font.pixelSize: Theme.bodySize
        font.weight: Font.DemiBold
        Accessible.name: text
    }
    Row {
        spacing: (picker.width - 8 * 40) / 7
        Repeater {
            model: picker.viewModel.themeItems
            delegate: T.AbstractButton {
                id: swatch
                required property var modelData
                readonly property var colors: modelData.colors
                readonly property bool chosen: picker.speech.widgetTheme === modelData.name

                width: 40
                height: 40
                hoverEnabled: true
                Accessible.name: modelData.name
                Accessible.role: Accessible.RadioButton
                Accessible.checkable: true
                Accessible.checked: chosen
                onClicked: picker.speech.widgetTheme = modelData.name
                FocusRing {
                    shown: swatch.visualFocus
                    radius: width / 2
                }
                background: Rectangle {
                    radius: width / 2
                    color: "transparent"
                    border.width: swatch.chosen ? 2 : (swatch.hovered ? 1 : 0)
                    border.color: swatch.chosen ? Theme.accent : Theme.border
                }
                contentItem: Item {
                    Rectangle {
                        anchors.centerIn: parent
                        width: 30
                        height: 30
                        radius: 15
                        border.width: 1
                        border.color: Theme.border
                        gradient: Gradient {
                            GradientStop { position: 0.0; color: swatch.colors[0] }
                            GradientStop { position: 0.5; color: swatch.colors[1] }
                            GradientStop { position: 1.0; color: swatch.colors[2] }
                        }
                    }
                }
            }
        }
    }
    Text {
        width: parent.width
        text: "See your changes on the floating widget"
        color: Theme.secondaryText
        font.pixelSize: Theme.captionSize + 1
        horizontalAlignment: Text.AlignHCenter
        Accessible.name: text
    }
}
