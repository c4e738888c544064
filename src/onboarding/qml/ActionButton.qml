// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import Quillvox.Controls

// The onboarding's buttons: the shared push button, at the window's larger size. `prominent` fills it
// with the accent, `flat` draws only its text.
PushButton {
    property bool prominent: false

    kind: prominent ? "primary" : flat ? "link" : "secondary"
    implicitWidth: Math.max(flat ? 0 : 240, implicitContentWidth + leftPadding + rightPadding)
    implicitHeight: flat ? 32 : 44
    leftPadding: flat ? 0 : 16
    rightPadding: flat ? 0 : 16
    textSize: Theme.bodySize
    textWeight: Font.DemiBold
}
