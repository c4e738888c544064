// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/null/input/NullKeyboardInjector.h"

NullKeyboardInjector::NullKeyboardInjector(Availability availability)
    : m_availability(availability)
{}

void NullKeyboardInjector::sendKeys(const QList<KeyEvent> &events)
{
    for (const KeyEvent &event : events) {
        if (event.pressed) {
            if (!m_held.contains(event.keyCode))
                m_held.append(event.keyCode);
        } else {
            m_held.removeAll(event.keyCode);
        }
        m_sent.append(event);
        if (m_receiver)
            m_receiver(event, m_held);
    }
}
