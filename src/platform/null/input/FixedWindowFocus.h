// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/WindowFocus.h"

// A focused window set by hand (or none).
class FixedWindowFocus final : public WindowFocus
{
public:
    std::optional<FocusedWindow> focusedWindow() override { return m_window; }
    void setFocusedWindow(const std::optional<FocusedWindow> &window) { m_window = window; }

private:
    std::optional<FocusedWindow> m_window;
};
