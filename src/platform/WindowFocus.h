// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

#include <optional>

// The window that has the keyboard focus: the window the user's synthetic copy would reach.
struct FocusedWindow
{
    // The two halves of the window's WM_CLASS (e.g. "xterm" and "XTerm"); empty when it has none.
    QString instanceName;
    QString className;
    // The window belongs to this process.
    bool isOwnWindow = false;
};

class WindowFocus
{
public:
    virtual ~WindowFocus() = default;
    // Nothing when no window has the focus.
    virtual std::optional<FocusedWindow> focusedWindow() = 0;
};
