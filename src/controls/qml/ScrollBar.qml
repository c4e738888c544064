// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Templates as T

// A thin overlay scroll bar that widens under the pointer; hidden when everything fits.
T.ScrollBar {
    id: control

    implicitWidth: hovered || pressed ? 10 : 6
    implicitHeight: hovered || pressed ? 10 : 6
    padding: 2
    minimumSize: 0.08
    visible: policy === T.ScrollBar.AlwaysOn || size < 1.0
    hoverEnabled: true

    contentItem: Rectangle {
        radius: width / 2
        color: Style.text
        opacity: control.pressed ? 0.5 : control.hovered ? 0.38 : 0.25
    }
}
