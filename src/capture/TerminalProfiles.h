// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

// How to copy the selection of the focused window without harming it. Ctrl+C in a terminal emulator
// interrupts the program running there, so terminals are recognised by their WM_CLASS and copied the
// way each one copies.
class TerminalProfiles
{
public:
    enum class CopyMethod {
        // Ctrl+C: every application that is not a terminal.
        CopyShortcut,
        // Ctrl+Shift+C, the copy key of most terminal emulators.
        TerminalCopyShortcut,
        // xterm and the rxvt family bind nothing to Ctrl+Shift+C and send the interrupt for it too; their
        // selection is in PRIMARY.
        PrimarySelection,
    };

    static CopyMethod copyMethod(const QString &instanceName, const QString &className);
};
