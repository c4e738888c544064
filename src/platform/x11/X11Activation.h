// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <optional>

class QWindow;

// Window activation on behalf of a launcher. A window that a running Quillvox shows because a launcher or
// a second start asked (Activate, Open) would otherwise be held back by the window manager's
// focus-stealing prevention: its activation carries the time of this process's last input, not the
// user's click in the launcher.
namespace X11Activation {

// The X server time at the end of a startup notification id ("..._TIME1234567"); nothing when it has none.
std::optional<quint32> startupTime(const QByteArray &startupId);

// Asks the window manager to activate `window` with the launcher's time from `startupId`. False when
// the id has no time or Qt does not run on X11.
bool activate(QWindow &window, const QByteArray &startupId);

} // namespace X11Activation
