// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick

// One of our SVG symbols, drawn crisp at its size in one colour.
Image {
    id: symbol

    required property string name
    property color color: Theme.text
    property int size: 24

    width: size
    height: size
    sourceSize: Qt.size(size, size)
    source: "image://quillvox-icons/" + name + "/" + String(color).substring(1)
    Accessible.ignored: true
}
