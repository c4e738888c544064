// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Templates as T

// A one-line text field at the controls' height, its outline in the accent while it has the focus.
T.TextField {
    id: field

    implicitWidth: Math.max(160, contentWidth + leftPadding + rightPadding)
    implicitHeight: Style.controlHeight
    leftPadding: 10
    rightPadding: 10
    verticalAlignment: TextInput.AlignVCenter
    color: Style.text
    selectionColor: Style.accent
    selectedTextColor: Style.textOnAccent
    placeholderTextColor: Style.secondaryText
    font.pixelSize: Style.bodySize
    opacity: enabled ? 1 : 0.55
    selectByMouse: true

    Text {
        x: field.leftPadding
        width: field.width - field.leftPadding - field.rightPadding
        height: field.height
        verticalAlignment: Text.AlignVCenter
        visible: field.text === "" && field.preeditText === ""
        text: field.placeholderText
        color: field.placeholderTextColor
        font: field.font
        elide: Text.ElideRight
        Accessible.ignored: true
    }

    background: Rectangle {
        radius: Style.radius
        color: Style.control
        border.width: field.activeFocus ? 2 : 1
        border.color: field.activeFocus ? Style.accent : Style.controlBorder
    }
}
