// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QList>
#include <QtGlobal>

// Synthetic key events, as if typed on the keyboard: they reach whichever window has the focus.
// Keys are evdev codes (the Linux input layer's number for the key position; X11 adds 8).
class KeyboardInjector
{
public:
    enum class Availability {
        Available,
        // Not connected to an X11 display at all.
        NoDisplay,
        // A Wayland session: synthetic X11 input would reach X11 clients only.
        WaylandSession,
        // The X server lacks the XTEST extension.
        NoXTest,
    };

    struct KeyEvent
    {
        quint32 keyCode;
        bool pressed;
        friend bool operator==(const KeyEvent &, const KeyEvent &) = default;
    };

    virtual ~KeyboardInjector() = default;

    virtual Availability availability() = 0;
    // Every key the server currently sees held down, physical or synthetic.
    virtual QList<quint32> heldKeys() = 0;
    // Key events in one batch, in this order; they have reached the server when the call returns.
    virtual void sendKeys(const QList<KeyEvent> &events) = 0;
};
