// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import Quillvox.Widget

// The sentence being heard, marked in the theme's colour; a click goes back to where it starts.
Item {
    id: row

    required property FloatingWidgetViewModel viewModel
    readonly property var palette_: viewModel.palette

    height: 32
    Accessible.role: Accessible.StaticText
    Accessible.name: "Now reading"
    Accessible.description: viewModel.followAlongText
    Accessible.onPressAction: viewModel.seekToSentenceStart()

    Rectangle {
        anchors.fill: parent
        anchors.margins: -4
        radius: 6
        color: seekArea.pressed ? row.palette_.controlPressed
                                : (seekArea.containsMouse ? row.palette_.controlHover : "transparent")
    }
    Rectangle {
        id: mark

        width: 3
        height: parent.height
        radius: 1.5
        color: row.palette_.accent
    }
    Text {
        anchors.fill: parent
        anchors.leftMargin: mark.width + 8
        verticalAlignment: lineCount > 1 ? Text.AlignTop : Text.AlignVCenter
        font.pixelSize: 12
        lineHeight: 16
        lineHeightMode: Text.FixedHeight
        wrapMode: Text.Wrap
        maximumLineCount: 2
        elide: Text.ElideRight
        color: row.palette_.foreground
        text: row.viewModel.followAlongText
        Accessible.ignored: true
    }
    MouseArea {
        id: seekArea

        anchors.fill: parent
        hoverEnabled: true
        cursorShape: Qt.PointingHandCursor
        onClicked: row.viewModel.seekToSentenceStart()
    }
}
