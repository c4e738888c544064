// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/GlobalHotKeyBackend.h"

#include <QHash>
#include <QList>

#include <functional>
#include <memory>
#include <optional>

class HotKeyRegistration;

// The hot-key layer: turns (virtual key code, modifier flags) registrations into grabs of the platform
// backend and delivers one key-down per physical press to the registration that owns the combination.
//
// Several registrations may hold the same combination at once (a binding re-registered before its old
// registration is released, or two bindings set to one combination): the combination is grabbed once
// and released with its last registration, and only the registration with the lowest rank fires.
// GUI thread only.
class HotKeyCenter
{
public:
    explicit HotKeyCenter(std::unique_ptr<GlobalHotKeyBackend> backend);
    ~HotKeyCenter();
    HotKeyCenter(const HotKeyCenter &) = delete;
    HotKeyCenter &operator=(const HotKeyCenter &) = delete;

    // The registration stays in force until it is destroyed. A key without a key code on this system
    // gives a registration that never fires.
    std::unique_ptr<HotKeyRegistration> registerHotKey(quint32 virtualKeyCode, quint64 modifierFlags,
                                                       int rank);

    GlobalHotKeyBackend &backend() const { return *m_backend; }

private:
    friend class HotKeyRegistration;

    struct Grab
    {
        int registrations = 0;
        bool grabbed = false;
    };
    struct KeyState
    {
        bool held = false;
        std::optional<quint32> lastReleaseMs;
    };

    void unregister(HotKeyRegistration *registration);
    bool isRegistered(const HotKeyRegistration *registration) const;
    bool isRefusedBySystem(const HotKeyRegistration *registration) const;
    const HotKeyRegistration *owner(const NativeHotKey &hotKey) const;
    void handleEvent(const NativeHotKeyEvent &event);

    std::unique_ptr<GlobalHotKeyBackend> m_backend;
    QHash<NativeHotKey, Grab> m_grabs;
    QHash<quint32, KeyState> m_keys;
    QList<HotKeyRegistration *> m_registrations;
};

// One registered combination of a HotKeyCenter; destroying it unregisters it.
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
