// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import Quillvox.Shortcuts

// One settings row's recorder. The row owns the recording flag: bind `isRecording` to it and clear it on
// `finished`, which follows an accepted combination (after `recorded`), Escape, and the recorder losing
// the keyboard focus. How the row looks while recording is the settings window's business; this shows
// the binding or the prompt, and the keyboard focus as a ring.
FocusScope {
    id: root

    property bool isRecording: false
    // The binding shown while not recording, e.g. HotkeyManager.displayLabel.
    property string label
    property string prompt: qsTr("Type a shortcut…")
    // What a screen reader calls the recorder; it also hears whether it records.
    property string accessibleName
    // The window's own look: the well's colour, and the accent of the recording outline and focus ring.
    property color fill: systemPalette.base
    property color accent: systemPalette.highlight

    signal recorded(var key, var modifiers)
    signal finished
    // A screen reader's press.
    signal activated

    // The item inside, which holds the keyboard focus, speaks for the recorder.
    Accessible.ignored: true

    implicitWidth: Math.max(caption.implicitWidth + 16, 120)
    implicitHeight: caption.implicitHeight + 10

    SystemPalette {
        id: systemPalette
    }

    Rectangle {
        anchors.fill: parent
        radius: 8
        color: root.fill
        border.width: root.isRecording ? 2 : 1
        border.color: root.isRecording ? root.accent : systemPalette.mid
    }

    Rectangle {
        anchors.fill: parent
        anchors.margins: -3
        visible: root.activeFocus && !root.isRecording
        radius: 11
        color: "transparent"
        border.width: 2
        border.color: root.accent
    }

    Text {
        id: caption
        anchors.centerIn: parent
        text: root.isRecording ? root.prompt : root.label
        color: systemPalette.text
    }

    ShortcutRecorderItem {
        id: recorder
        anchors.fill: parent
        focus: true
        recording: root.isRecording
        Accessible.role: Accessible.Button
        Accessible.name: root.accessibleName
        Accessible.description: root.isRecording ? root.prompt : root.label
        Accessible.onPressAction: root.activated()
        onShortcutRecorded: (key, modifiers) => {
            root.recorded(key, modifiers);
            root.finished();
        }
        onCancel: root.finished()
    }
}
