// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick

// A step's symbol, title and explanation, centred.
Column {
    id: header

    property string symbol: ""
    property color symbolColor: Theme.accent
    property int symbolSize: 64
    property string title: ""
    property string subtitle: ""

    width: parent ? parent.width : 0
    spacing: Theme.spacing

    Symbol {
        visible: header.symbol !== ""
        name: header.symbol || "sparkles"
        color: header.symbolColor
        size: header.symbolSize
        anchors.horizontalCenter: parent.horizontalCenter
    }
    Text {
        visible: text !== ""
        width: parent.width
        text: header.title
        color: Theme.text
        font.pixelSize: Theme.titleSize
        font.weight: Font.Bold
        horizontalAlignment: Text.AlignHCenter
        wrapMode: Text.WordWrap
        Accessible.name: text
    }
    Text {
        visible: text !== ""
        width: parent.width
        text: header.subtitle
        color: Theme.secondaryText
        font.pixelSize: Theme.bodySize
        horizontalAlignment: Text.AlignHCenter
        wrapMode: Text.WordWrap
        lineHeight: 1.15
        Accessible.name: text
    }
}
