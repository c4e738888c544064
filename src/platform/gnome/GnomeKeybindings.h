// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QList>
#include <QString>

// GNOME's own custom keyboard shortcuts (Settings → Keyboard → Custom Shortcuts), which run a command.
// Where our extension cannot run, they are how GNOME on Wayland gets system-wide keys for Quillvox.
namespace GnomeKeybindings {

struct Entry
{
    QString id; // ours alone: "narrate-selection" is kept at …/custom-keybindings/quillvox-narrate-selection/
    QString name;    // shown in GNOME Settings
    QString command; // "quillvox --narrate-selection"
    QString binding; // a GTK accelerator, "<Control><Alt>s"

    friend bool operator==(const Entry &, const Entry &) = default;
};

// Writes the entries into the settings GNOME reads them from, replacing earlier entries of the same id
// and leaving every other custom shortcut as it was. False when GNOME's settings schemas are missing.
bool write(const QList<Entry> &entries);

// Our entries as they are stored now, in the order GNOME lists them.
QList<Entry> read();

} // namespace GnomeKeybindings
