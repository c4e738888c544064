// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Templates as T

// A choice from a list of texts: the chosen one in a field, the list in a popup below it.
T.ComboBox {
    id: control

    implicitWidth: Math.max(160, implicitContentWidth + leftPadding + rightPadding)
    implicitHeight: Style.controlHeight
    leftPadding: 10
    rightPadding: 30
    font.pixelSize: Style.bodySize
    hoverEnabled: true
    opacity: enabled ? 1 : 0.55

    delegate: T.ItemDelegate {
        id: row

        required property var modelData
        required property int index

        width: ListView.view.width
        implicitHeight: 28
        leftPadding: 8
        rightPadding: 8
        text: control.textRole ? modelData[control.textRole] : modelData
        highlighted: control.highlightedIndex === index
        hoverEnabled: true
        font: control.font

        contentItem: Text {
            text: row.text
            font: row.font
            color: row.highlighted ? Style.textOnAccent : Style.text
            elide: Text.ElideRight
            verticalAlignment: Text.AlignVCenter
        }
        background: Rectangle {
            radius: 5
            color: row.highlighted ? Style.accent : "transparent"
        }
    }

    indicator: Chevron {
        x: control.width - width - 12
        y: (control.height - height) / 2
        color: Style.secondaryText
    }

    contentItem: Text {
        text: control.displayText
        font: control.font
        color: Style.text
        elide: Text.ElideRight
        verticalAlignment: Text.AlignVCenter
    }

    background: Rectangle {
        radius: Style.radius
        color: control.down ? Qt.darker(Style.control, 1.06) : control.hovered ? Qt.darker(Style.control, 1.03)
                                                                               : Style.control
        border.width: 1
        border.color: Style.controlBorder
    }
    FocusRing {
        shown: control.visualFocus
    }

    popup: T.Popup {
        y: control.height + 4
        width: control.width
        implicitHeight: Math.min(contentItem.implicitHeight + topPadding + bottomPadding, 280)
        padding: 4

        contentItem: ListView {
            clip: true
            implicitHeight: contentHeight
            model: control.popup.visible ? control.delegateModel : null
            currentIndex: control.highlightedIndex
            boundsBehavior: Flickable.StopAtBounds
            T.ScrollBar.vertical: ScrollBar {}
        }
        background: Rectangle {
            radius: Style.radius
            color: Style.dark ? Style.control : Style.surface
            border.width: 1
            border.color: Style.border
        }
    }
}
