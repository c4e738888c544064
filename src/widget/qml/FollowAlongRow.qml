// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import Quillvox.Widget

// The sentence being heard; a click goes back to where it starts.
Item {
    id: row

    required property FloatingWidgetViewModel viewModel
    readonly property var palette_: viewModel.palette

    height: 32
    Accessible.role: Accessible.StaticText
    Accessible.name: "Now reading"
    Accessible.description: viewModel.followAlongText
    Accessible.onPressAction: viewModel.seekToSentenceStart()

    Text {
        anchors.fill: parent
        font.pixelSize: 12
        lineHeight: 16
        lineHeightMode: Text.FixedHeight
        wrapMode: Text.Wrap
        maximumLineCount: 2
        elide: Text.ElideRight
        color: seekArea.containsMouse ? row.palette_.foreground : row.palette_.secondaryForeground
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
