// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/PanelWindowHints.h"

// The EWMH hints of a floating panel on Qt's own X11 connection.
class X11PanelHints final : public PanelWindowHints
{
public:
    void apply(QWindow &window) override;
    bool hasCompositingManager() const override;
};
