// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Templates as T

// Text in the desktop's colour and font.
T.Label {
    color: Style.text
    linkColor: Style.accentText
}
