// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/GlobalHotKeyBackend.h"

#include <functional>
#include <optional>

class HotKeyCenter;

// One registered combination; destroying it unregisters it.
class HotKeyRegistration
{
public:
    ~HotKeyRegistration();
    HotKeyRegistration(const HotKeyRegistration &) = delete;
    HotKeyRegistration &operator=(const HotKeyRegistration &) = delete;

    quint32 key() const { return m_key; }
    quint64 modifiers() const { return m_modifiers; }
    // Run on the GUI thread once per physical press of the combination.
    void setKeyDownHandler(std::function<void()> handler) { m_keyDownHandler = std::move(handler); }
    // The system took the combination and this registration is the one that fires for it.
    bool isRegistered() const;
    // The system would not give us the combination: another application holds it.
    bool isRefusedBySystem() const;

private:
    friend class HotKeyCenter;
    HotKeyRegistration(HotKeyCenter *center, quint32 key, quint64 modifiers, int rank,
                       std::optional<NativeHotKey> nativeHotKey);

    HotKeyCenter *m_center;
    quint32 m_key;
    quint64 m_modifiers;
    int m_rank;
    std::optional<NativeHotKey> m_native;
    std::function<void()> m_keyDownHandler;
};
