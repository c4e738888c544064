// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

class HotkeyManager;

// Creates the process-wide shortcut manager on this session's hot-key backend, wired to the shared text
// capture and speech controller, and installs it as HotkeyManager::shared(). Registers the six
// shortcuts. Called once when normal operation starts, on the GUI thread.
HotkeyManager &createSharedHotkeyManager();
