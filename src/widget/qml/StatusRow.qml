// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import Quillvox.Widget

// Play button, live waveform, what is happening, and the way to settings.
Item {
    id: row

    required property FloatingWidgetViewModel viewModel
    readonly property var palette: viewModel.palette
    readonly property int state_: viewModel.playState

    height: 40

    PlayButton {
        id: play

        anchors.left: parent.left
        anchors.verticalCenter: parent.verticalCenter
        viewModel: row.viewModel
    }

    Rectangle {
        id: well

        anchors.left: play.right
        anchors.leftMargin: 12
        anchors.verticalCenter: parent.verticalCenter
        width: 44
        height: 36
        radius: 10
        color: row.palette.waveformWell

        WaveformView {
            anchors.fill: parent
            speech: row.viewModel.speech
            barColors: row.palette.barColors
            minimumBarHeight: 3
            maximumBarHeight: 28
            Accessible.ignored: true
        }
    }

    Column {
        anchors.left: well.right
        anchors.leftMargin: 12
        anchors.right: settings.left
        anchors.rightMargin: 8
        anchors.verticalCenter: parent.verticalCenter
        spacing: 2

        Text {
            width: parent.width
            elide: Text.ElideRight
            font.pixelSize: 13
            font.weight: Font.DemiBold
            // The error titles are the longest; they shrink a little rather than lose their end.
            fontSizeMode: Text.HorizontalFit
            minimumPixelSize: 11
            color: row.viewModel.errorTitle ? row.palette.warning : row.palette.foreground
            text: row.viewModel.title
        }
        Text {
            width: parent.width
            elide: Text.ElideRight
            font.pixelSize: 12
            color: row.palette.secondaryForeground
            text: row.viewModel.subtitle
        }
    }

    IconButton {
        id: settings

        anchors.right: parent.right
        anchors.verticalCenter: parent.verticalCenter
        palette_: row.palette
        symbol: "settings"
        name: "Open Settings"
        onClicked: row.viewModel.openSettings()
    }
}
