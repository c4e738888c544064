// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

class QWindow;

// What a floating panel asks of the window manager beyond Qt's window flags: every workspace, above
// other windows, out of the task bar and pager, no keyboard focus; and whether the desktop composites
// (without a compositing manager per-pixel transparency is unavailable and the panel is cut by a shape).
class PanelWindowHints
{
public:
    virtual ~PanelWindowHints() = default;

    // Before the window is first shown, and again once it is mapped (window managers read some hints
    // only from a mapped window's messages).
    virtual void apply(QWindow &window) = 0;
    virtual bool hasCompositingManager() const = 0;
};
