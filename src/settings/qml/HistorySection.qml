// SPDX-License-Identifier: GPL-3.0-or-later
import QtQuick
import QtQuick.Templates as T
import QtQuick.Layouts
import Quillvox.Controls
import Quillvox.Settings

SectionPage {
    id: root

    required property HistorySettingsModel model

    // After a deletion: the same place in the list, which now holds the next entry (or the last one).
    function focusEntry(index) {
        const count = entryRows.count;
        const entry = count > 0 ? entryRows.itemAt(Math.min(index, count - 1)) : null;
        const next = entry ? entry.deleteButton : clearAll.nextItemInFocusChain();
        if (next)
            next.forceActiveFocus(Qt.TabFocusReason);
    }

    title: "History"

    SystemPalette {
        id: palette
    }

    RowLayout {
        Layout.fillWidth: true

        Label {
            Layout.fillWidth: true
            text: "Your last ten narrations, kept on this computer for replay."
            opacity: 0.7
            wrapMode: Text.WordWrap
        }
        PushButton {
            id: clearAll
            kind: "destructive"
            text: "Clear All"
            enabled: root.model.entries.count > 0
            Accessible.name: "Clear All"
            onClicked: confirmation.open()
        }
    }

    SettingsCard {
        Label {
            visible: root.model.entries.count === 0
            Layout.alignment: Qt.AlignHCenter
            Layout.topMargin: 16
            Layout.bottomMargin: 16
            text: "No narrations yet"
            opacity: 0.6
            Accessible.name: text
        }

        Repeater {
            id: entryRows
            model: root.model.entries

            delegate: ColumnLayout {
                id: entry

                required property int index
                required property string entryId
                required property string title
                required property string fullText
                required property string voice
                required property string date
                required property string duration
                required property bool playing
                property bool expanded: false
                readonly property alias deleteButton: deleteButton

                Layout.fillWidth: true
                spacing: 12

                Rectangle {
                    visible: entry.index > 0
                    Layout.fillWidth: true
                    implicitHeight: 1
                    color: Qt.rgba(palette.text.r, palette.text.g, palette.text.b, 0.1)
                }
                RowLayout {
                    Layout.fillWidth: true
                    spacing: 8

                    PushButton {
                        implicitWidth: 32
                        leftPadding: 0
                        rightPadding: 0
                        text: entry.playing ? "❚❚" : "▶"
                        Accessible.name: (entry.playing ? "Pause " : "Play ") + entry.title
                        onClicked: root.model.replay(entry.entryId)
                    }
                    ColumnLayout {
                        Layout.fillWidth: true
                        spacing: 2
                        Label {
                            id: titleLabel
                            Layout.fillWidth: true
                            text: entry.title
                            elide: Text.ElideRight
                            Accessible.name: text
                            Accessible.description: entry.fullText
                        }
                        Label {
                            text: entry.voice + "  ·  " + entry.date + "  ·  " + entry.duration
                            opacity: 0.65
                            font.pixelSize: 12
                        }
                    }
                    PushButton {
                        kind: "link"
                        implicitWidth: 24
                        // Only where the title does not already say it all.
                        visible: titleLabel.truncated || entry.fullText.trim() !== entry.title
                        text: entry.expanded ? "▴" : "▾"
                        Accessible.name: entry.expanded ? "Hide full text" : "Show full text"
                        Accessible.description: entry.title
                        onClicked: entry.expanded = !entry.expanded

                        ToolTip {
                            text: parent.Accessible.name
                        }
                    }
                    PushButton {
                        kind: "link"
                        text: "Export…"
                        Accessible.name: "Export " + entry.title
                        onClicked: root.model.exportSession(entry.entryId)
                    }
                    PushButton {
                        id: deleteButton
                        kind: "link"
                        ink: Style.destructive
                        text: "Delete"
                        Accessible.name: "Delete " + entry.title
                        onClicked: {
                            // Once this row has gone from the list.
                            Qt.callLater(root.focusEntry, entry.index);
                            root.model.remove(entry.entryId);
                        }
                    }
                }
                // Selectable, so that a passage can be copied.
                TextEdit {
                    visible: entry.expanded
                    Layout.fillWidth: true
                    Layout.leftMargin: 48
                    readOnly: true
                    selectByMouse: true
                    selectByKeyboard: true
                    activeFocusOnTab: visible
                    text: entry.fullText
                    textFormat: Text.PlainText
                    wrapMode: Text.Wrap
                    color: palette.text
                    selectionColor: palette.highlight
                    selectedTextColor: palette.highlightedText
                    Accessible.role: Accessible.StaticText
                    Accessible.name: text

                    FocusRing {
                        shown: parent.activeFocus
                        gap: 6
                        radius: 6
                    }
                }
            }
        }
    }

    Label {
        Layout.fillWidth: true
        visible: text !== ""
        text: root.model.exportMessage
        wrapMode: Text.WordWrap
        Accessible.name: text
    }

    T.Dialog {
        id: confirmation
        objectName: "clearConfirmation"
        parent: root
        anchors.centerIn: parent
        modal: true
        title: "Clear all history?"
        implicitWidth: Math.max(implicitBackgroundWidth, implicitContentWidth + leftPadding + rightPadding,
                                implicitHeaderWidth, implicitFooterWidth)
        implicitHeight: implicitContentHeight + topPadding + bottomPadding + implicitHeaderHeight
                        + implicitFooterHeight
        padding: 20
        topPadding: 8
        // The focus goes into the dialog and comes back to where it was asked for (or past it, once
        // there is nothing left to clear).
        onOpened: cancelButton.forceActiveFocus(Qt.TabFocusReason)
        onClosed: {
            if (clearAll.enabled)
                clearAll.forceActiveFocus(Qt.TabFocusReason);
            else
                root.focusEntry(0);
        }

        T.Overlay.modal: Rectangle {
            color: Qt.rgba(0, 0, 0, Style.dark ? 0.45 : 0.25)
        }
        background: Rectangle {
            radius: 12
            color: Style.dark ? Style.surface : Style.window
            border.width: 1
            border.color: Style.border
        }
        header: Label {
            text: confirmation.title
            padding: 20
            bottomPadding: 0
            font.pixelSize: 15
            font.bold: true
        }

        Label {
            text: "Every kept narration and its audio will be deleted."
        }
        footer: RowLayout {
            spacing: 8

            Item {
                Layout.fillWidth: true
            }
            PushButton {
                id: cancelButton
                Layout.bottomMargin: 20
                text: "Cancel"
                Accessible.name: "Cancel"
                onClicked: confirmation.reject()
            }
            PushButton {
                Layout.bottomMargin: 20
                Layout.rightMargin: 20
                kind: "destructive"
                text: "Delete All"
                Accessible.name: "Delete All"
                onClicked: confirmation.accept()
            }
        }
        onAccepted: root.model.clearAll()
    }
}
