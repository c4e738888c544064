// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Templates as T

// A number in a field with "−" and "+" beside it, as the desktop's own spin buttons sit.
T.SpinBox {
    id: control

    implicitWidth: Math.max(140, implicitContentWidth + leftPadding + rightPadding)
    implicitHeight: Style.controlHeight
    leftPadding: 10
    rightPadding: 2 * Style.controlHeight + 4
    font.pixelSize: Style.bodySize
    hoverEnabled: true
    opacity: enabled ? 1 : 0.55

    validator: IntValidator {
        bottom: Math.min(control.from, control.to)
        top: Math.max(control.from, control.to)
    }

    contentItem: TextInput {
        text: control.displayText
        font: control.font
        color: Style.text
        selectionColor: Style.accent
        selectedTextColor: Style.textOnAccent
        verticalAlignment: Qt.AlignVCenter
        readOnly: !control.editable
        validator: control.validator
        inputMethodHints: Qt.ImhDigitsOnly
        selectByMouse: true
        clip: true
    }

    down.indicator: SpinButton {
        x: control.width - 2 * width
        sign: "−"
        pressed: control.down.pressed
        hovered: control.down.hovered
    }
    up.indicator: SpinButton {
        x: control.width - width
        sign: "+"
        pressed: control.up.pressed
        hovered: control.up.hovered
    }

    background: Rectangle {
        radius: Style.radius
        color: Style.control
        border.width: control.activeFocus ? 2 : 1
        border.color: control.activeFocus ? Style.accent : Style.controlBorder
    }

    component SpinButton: Rectangle {
        property string sign
        property bool pressed
        property bool hovered

        implicitWidth: Style.controlHeight
        height: control.height
        color: pressed ? Style.hover : "transparent"
        radius: Style.radius
        Accessible.ignored: true

        Rectangle {
            width: 1
            height: parent.height - 12
            anchors.verticalCenter: parent.verticalCenter
            color: Style.border
        }
        Text {
            anchors.centerIn: parent
            text: parent.sign
            font.pixelSize: 16
            color: parent.hovered ? Style.text : Style.secondaryText
        }
    }
}
