// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Templates as T

// A push button. `kind`: "primary" filled with the accent, "secondary" outlined, "destructive" outlined
// with red text, "link" only its text. `fill` and `ink` override the colours (a brand's own button).
T.Button {
    id: button

    property string kind: "secondary"
    property string symbol: ""
    property int textSize: Style.bodySize
    property int textWeight: Font.Medium
    readonly property bool isLink: kind === "link"
    property color fill: kind === "primary" ? Style.accent : Style.control
    property color ink: kind === "primary" ? Style.textOnAccent
                                           : kind === "destructive" ? Style.destructive
                                                                    : isLink ? Style.accentText : Style.text

    implicitWidth: Math.max(isLink ? 0 : 72, implicitContentWidth + leftPadding + rightPadding)
    implicitHeight: isLink ? 24 : Style.controlHeight
    leftPadding: isLink ? 0 : 14
    rightPadding: isLink ? 0 : 14
    // A disabled button fades as a whole, its label too, so that it does not read as one to press.
    opacity: enabled ? 1 : 0.45
    hoverEnabled: true
    focusPolicy: Qt.StrongFocus
    Accessible.name: text
    Accessible.role: Accessible.Button

    background: Rectangle {
        visible: !button.isLink
        radius: Style.radius
        color: button.down ? Qt.darker(button.fill, 1.12)
                           : button.hovered ? Qt.darker(button.fill, button.kind === "primary" ? 1.06 : 1.04)
                                            : button.fill
        border.width: button.kind === "primary" || button.fill !== Style.control ? 0 : 1
        border.color: Style.controlBorder
    }
    FocusRing {
        shown: button.visualFocus
    }

    contentItem: Item {
        implicitWidth: row.implicitWidth
        implicitHeight: row.implicitHeight
        Row {
            id: row
            anchors.centerIn: parent
            spacing: 8
            Image {
                visible: button.symbol !== ""
                width: 18
                height: 18
                sourceSize: Qt.size(18, 18)
                source: button.symbol === "" ? ""
                                             : "image://quillvox-icons/" + button.symbol + "/" + String(button.ink).substring(1)
                anchors.verticalCenter: parent.verticalCenter
                Accessible.ignored: true
            }
            Text {
                text: button.text
                color: button.ink
                font.pixelSize: button.textSize
                font.weight: button.isLink ? Font.Normal : button.textWeight
                font.underline: button.isLink && (button.hovered || button.visualFocus)
                anchors.verticalCenter: parent.verticalCenter
                Accessible.ignored: true
            }
        }
    }
}
