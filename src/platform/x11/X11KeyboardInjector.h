// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/KeyboardInjector.h"

// Synthetic key events through the XTEST extension, on Qt's connection.
class X11KeyboardInjector final : public KeyboardInjector
{
public:
    Availability availability() override;
    QList<quint32> heldKeys() override;
    void sendKeys(const QList<KeyEvent> &events) override;
};
