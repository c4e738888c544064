// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/KeyboardInjector.h"

#include <QList>

#include <functional>

// Synthetic key events without a display: they are recorded, and the keyboard state follows them.
class NullKeyboardInjector final : public KeyboardInjector
{
public:
    explicit NullKeyboardInjector(Availability availability = Availability::NoDisplay);

    Availability availability() override { return m_availability; }
    QList<quint32> heldKeys() override { return m_held; }
    void sendKeys(const QList<KeyEvent> &events) override;

    void setAvailability(Availability availability) { m_availability = availability; }
    // Keys the user holds down.
    void setHeldKeys(const QList<quint32> &keys) { m_held = keys; }
    const QList<KeyEvent> &sentKeys() const { return m_sent; }
    // Stands in for the application with the focus: sees each key event with the keys held after it.
    void setReceiver(std::function<void(const KeyEvent &, const QList<quint32> &held)> receiver)
    {
        m_receiver = std::move(receiver);
    }

private:
    Availability m_availability;
    QList<quint32> m_held;
    QList<KeyEvent> m_sent;
    std::function<void(const KeyEvent &, const QList<quint32> &)> m_receiver;
};
