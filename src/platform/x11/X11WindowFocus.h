// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/WindowFocus.h"

// The X input focus: the window that synthetic key events reach, named by the nearest WM_CLASS on its
// way up to the root (the focus may sit on a child of the client window).
class X11WindowFocus final : public WindowFocus
{
public:
    std::optional<FocusedWindow> focusedWindow() override;
};
