// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Controls

SectionPage {
    id: root

    property string version

    title: "About"

    Label {
        text: "Quillvox"
        font.pixelSize: 18
        Accessible.name: text
    }
    Label {
        objectName: "versionLabel"
        text: "Version " + root.version
        Accessible.name: text
    }
}
