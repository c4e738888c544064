// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/null/input/NullGlobalHotKeys.h"

#include <algorithm>

NullGlobalHotKeys::NullGlobalHotKeys(bool acceptsGrabs)
    : m_acceptsGrabs(acceptsGrabs)
{}

bool NullGlobalHotKeys::grab(const NativeHotKey &hotKey)
{
    ++m_grabCalls[hotKey];
    if (!m_acceptsGrabs || m_takenElsewhere.contains(hotKey))
        return false;
    m_grabbed.insert(hotKey);
    return true;
}

void NullGlobalHotKeys::ungrab(const NativeHotKey &hotKey)
{
    ++m_ungrabCalls[hotKey];
    m_grabbed.remove(hotKey);
}

void NullGlobalHotKeys::setEventHandler(EventHandler handler)
{
    m_handler = std::move(handler);
}

void NullGlobalHotKeys::setTakenElsewhere(const NativeHotKey &hotKey, bool taken)
{
    if (taken)
        m_takenElsewhere.insert(hotKey);
    else
        m_takenElsewhere.remove(hotKey);
}

bool NullGlobalHotKeys::press(const NativeHotKey &hotKey, quint32 timestampMs)
{
    if (!m_grabbed.contains(hotKey) || !m_handler)
        return false;
    m_handler({hotKey, true, timestampMs});
    return true;
}

bool NullGlobalHotKeys::release(const NativeHotKey &hotKey, quint32 timestampMs)
{
    const bool grabbedKey = std::any_of(m_grabbed.cbegin(), m_grabbed.cend(),
                                        [&](const NativeHotKey &g) { return g.keyCode == hotKey.keyCode; });
    if (!grabbedKey || !m_handler)
        return false;
    m_handler({hotKey, false, timestampMs});
    return true;
}
