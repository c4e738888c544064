// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

// A desktop notification through the session's notification server (org.freedesktop.Notifications).
// Fire and forget: without a server, or without a session bus, nothing is shown and nothing waits.
void showDesktopNotification(const QString &summary, const QString &body);
