// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/null/input/NullKeyboardInjector.h"

NullKeyboardInjector::NullKeyboardInjector(Availability availability)
    : m_availability(availability)
{}

void NullKeyboardInjector::sendKey(quint32 keyCode, bool pressed)
{
    if (pressed) {
        if (!m_held.contains(keyCode))
            m_held.append(keyCode);
    } else {
        m_held.removeAll(keyCode);
    }
    const KeyEvent event{keyCode, pressed};
    m_sent.append(event);
    if (m_receiver)
        m_receiver(event, m_held);
}
