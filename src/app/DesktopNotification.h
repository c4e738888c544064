// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

#include <functional>

// A desktop notification through the session's notification server (org.freedesktop.Notifications).
// Fire and forget: without a server, or without a session bus, nothing is shown and nothing waits.
// With `actionLabel`, the notification offers that button, and `onAction` runs when it is chosen.
void showDesktopNotification(const QString &summary, const QString &body, const QString &actionLabel = {},
                             std::function<void()> onAction = {});
