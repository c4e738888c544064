// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import Quillvox.Controls
import QtQuick.Templates as T

// One minute package; a click chooses it for "Continue".
T.AbstractButton {
    id: card

    required property var package_
    property bool chosen: false

    implicitWidth: 150
    implicitHeight: 156
    hoverEnabled: true
    Accessible.name: package_.name
    Accessible.description: package_.priceText + ", " + package_.minutesText
    Accessible.role: Accessible.RadioButton
    Accessible.checkable: true
    Accessible.checked: chosen

    FocusRing {
        shown: card.visualFocus
        radius: 15
        // Under the card, so that the badge on its edge stays whole.
        z: -2
    }

    background: Rectangle {
        radius: 12
        color: card.chosen ? Theme.accentTint
                           : (card.hovered ? Theme.surface : Theme.background)
        border.width: card.chosen ? 2 : 1
        border.color: card.chosen ? Theme.accent : Theme.border

        Rectangle {
            visible: card.package_.isPopular
            anchors.horizontalCenter: parent.horizontalCenter
            anchors.verticalCenter: parent.top
            width: badge.implicitWidth + 20
            height: 22
            radius: 11
            color: Theme.accent
            Text {
                id: badge
                anchors.centerIn: parent
                text: "POPULAR"
                color: Theme.textOnAccent
                font.pixelSize: 11
                font.weight: Font.Bold
                font.letterSpacing: 0.6
            }
        }
    }
    contentItem: Column {
        topPadding: 22
        spacing: 4
        Text {
            width: card.width
            text: card.package_.name
            color: Theme.secondaryText
            font.pixelSize: Theme.bodySize
            font.weight: Font.DemiBold
            horizontalAlignment: Text.AlignHCenter
        }
        Text {
            width: card.width
            text: card.package_.priceText
            color: Theme.text
            font.pixelSize: 26
            font.weight: Font.Bold
            horizontalAlignment: Text.AlignHCenter
        }
        Item { width: 1; height: 6 }
        Text {
            width: card.width
            text: card.package_.minutesText
            color: Theme.text
            font.pixelSize: Theme.bodySize
            horizontalAlignment: Text.AlignHCenter
        }
        Text {
            width: card.width
            text: card.package_.hoursText
            color: Theme.secondaryText
            font.pixelSize: Theme.captionSize
            horizontalAlignment: Text.AlignHCenter
        }
    }
}
