// SPDX-License-Identifier: GPL-3.0-or-later
#include "shortcuts/HotKeyRegistration.h"

#include "shortcuts/HotKeyCenter.h"

HotKeyRegistration::HotKeyRegistration(HotKeyCenter *center, quint32 key, quint64 modifiers, int rank,
                                       std::optional<NativeHotKey> nativeHotKey)
    : m_center(center)
    , m_key(key)
    , m_modifiers(modifiers)
    , m_rank(rank)
    , m_native(nativeHotKey)
{}

HotKeyRegistration::~HotKeyRegistration()
{
    m_center->unregister(this);
}

bool HotKeyRegistration::isRegistered() const
{
    return m_center->isRegistered(this);
}

bool HotKeyRegistration::isRefusedBySystem() const
{
    return m_center->isRefusedBySystem(this);
}
