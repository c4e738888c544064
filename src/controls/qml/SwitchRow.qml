// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Layouts

// A setting that is on or off: its text, then the switch at the row's end. The switch carries the text
// as its accessible name; `toggled(on)` reports a change made by the user.
RowLayout {
    id: row

    property string text
    property bool checked
    signal toggled(bool on)

    Layout.fillWidth: true
    spacing: 16

    Text {
        Layout.fillWidth: true
        text: row.text
        color: Style.text
        font.pixelSize: Style.bodySize
        wrapMode: Text.WordWrap
        // The switch carries the name.
        Accessible.ignored: true
    }
    ToggleSwitch {
        checked: row.checked
        text: row.text
        onToggled: row.toggled(checked)
    }
}
