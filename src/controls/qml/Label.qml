// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Templates as T

// Text in the desktop's colour, at the body size unless a caller sets its own.
T.Label {
    color: Style.text
    linkColor: Style.accentText
    font.pixelSize: Style.bodySize
}
