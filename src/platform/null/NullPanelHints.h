// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/PanelWindowHints.h"

// No window manager to tell; says what a test wants about compositing.
class NullPanelHints final : public PanelWindowHints
{
public:
    explicit NullPanelHints(bool compositing = true)
        : m_compositing(compositing)
    {}
    void apply(QWindow &) override { ++appliedCount; }
    bool hasCompositingManager() const override { return m_compositing; }

    int appliedCount = 0;

private:
    bool m_compositing;
};
