// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/WindowInspector.h"

// The X input focus: the window that synthetic key events reach, named by the nearest WM_CLASS on its
// way up to the root (the focus may sit on a child of the client window).
class X11WindowInspector final : public WindowInspector
{
public:
    std::optional<FocusedWindow> focusedWindow() override;
};
