// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

class HotkeyManager;

// Creates the process-wide shortcut manager on the first way this session offers global shortcuts (X11
// grabs; the desktop portal's GlobalShortcuts), wired to the shared text capture and speech controller,
// and installs it as HotkeyManager::shared(). Registers the six shortcuts. Nothing where the session
// offers none (sway, GNOME before 48): the user binds our commands in the desktop's settings. Called
// once when normal operation starts, on the GUI thread.
HotkeyManager *createSharedHotkeyManager();
