// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Templates as T

// One option of a list of which one is chosen: a round mark, an optional symbol, the text and a line
// under it. The model decides the choice; `checked` shows it and a click reports `clicked()`.
T.AbstractButton {
    id: control

    property string symbol: ""
    property string detail: ""

    implicitWidth: implicitContentWidth + leftPadding + rightPadding
    implicitHeight: Math.max(28, implicitContentHeight + topPadding + bottomPadding)
    padding: 4
    leftPadding: 32
    hoverEnabled: true
    focusPolicy: Qt.StrongFocus
    checkable: false
    Accessible.role: Accessible.RadioButton
    Accessible.name: text
    Accessible.description: detail
    Accessible.checkable: true
    Accessible.checked: checked

    background: Rectangle {
        radius: Style.radius
        color: control.hovered ? Style.hover : "transparent"
    }

    indicator: Rectangle {
        x: 6
        y: control.topPadding + (titleRow.height - height) / 2
        width: 18
        height: 18
        radius: 9
        color: control.checked ? Style.accent : Style.control
        border.width: control.checked ? 0 : 1.5
        border.color: Style.controlBorder
        Rectangle {
            anchors.centerIn: parent
            visible: control.checked
            width: 7
            height: 7
            radius: 3.5
            color: Style.textOnAccent
        }
    }

    contentItem: Column {
        spacing: 1
        Row {
            id: titleRow
            spacing: 6
            Image {
                visible: control.symbol !== ""
                width: 18
                height: 18
                sourceSize: Qt.size(18, 18)
                anchors.verticalCenter: parent.verticalCenter
                source: control.symbol === "" ? ""
                                              : "image://quillvox-icons/" + control.symbol + "/"
                                                + String(control.checked ? Style.accentText : Style.text).substring(1)
                Accessible.ignored: true
            }
            Text {
                text: control.text
                color: Style.text
                font.pixelSize: Style.bodySize
                font.weight: control.checked ? Font.DemiBold : Font.Normal
                anchors.verticalCenter: parent.verticalCenter
                Accessible.ignored: true
            }
        }
        Text {
            visible: control.detail !== ""
            text: control.detail
            color: Style.secondaryText
            font.pixelSize: Style.captionSize
            Accessible.ignored: true
        }
    }
    FocusRing {
        shown: control.visualFocus
    }
}
