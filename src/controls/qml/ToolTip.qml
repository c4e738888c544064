// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Templates as T

// A short hint above the control it is declared in, shown after a pause while the pointer is on that
// control: `ToolTip { text: … }` inside a button.
T.ToolTip {
    id: tip

    visible: parent !== null && parent.hovered && text !== ""
    delay: 700
    x: parent ? (parent.width - width) / 2 : 0
    y: -implicitHeight - 6
    padding: 6
    leftPadding: 8
    rightPadding: 8
    margins: 6

    contentItem: Text {
        text: tip.text
        color: Style.dark ? "#1d1d20" : "#ffffff"
        font.pixelSize: Style.captionSize
        wrapMode: Text.Wrap
    }
    background: Rectangle {
        radius: 5
        color: Style.dark ? "#ececf0" : "#2b2b30"
    }
}
