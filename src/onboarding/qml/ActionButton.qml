// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Templates as T

// A push button: `prominent` fills it with the accent, `flat` draws only its text.
T.Button {
    id: button

    property bool prominent: false
    property string symbol: ""
    property color fill: prominent ? Theme.accent : Theme.background
    property color ink: prominent ? Theme.textOnAccent : (flat ? Theme.accent : Theme.text)

    implicitWidth: Math.max(flat ? 0 : 240, contentItem.implicitWidth + 32)
    implicitHeight: flat ? 32 : 44
    // A disabled button fades as a whole, its label too, so that it does not read as one to press.
    opacity: enabled ? 1 : 0.5
    hoverEnabled: true
    Accessible.name: text
    Accessible.role: Accessible.Button

    background: Rectangle {
        visible: !button.flat
        radius: Theme.radius
        color: button.down ? Qt.darker(button.fill, 1.12)
                           : (button.hovered ? Qt.darker(button.fill, 1.05) : button.fill)
        border.width: button.prominent ? 0 : 1
        border.color: Theme.border
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
            Symbol {
                visible: button.symbol !== ""
                name: button.symbol || "sparkles"
                color: button.ink
                size: 18
                anchors.verticalCenter: parent.verticalCenter
            }
            Text {
                text: button.text
                color: button.ink
                font.pixelSize: Theme.bodySize
                font.weight: Font.DemiBold
                font.underline: button.flat && button.hovered
                anchors.verticalCenter: parent.verticalCenter
            }
        }
    }
}
