// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QHashFunctions>
#include <QtGlobal>

#include <functional>

// A system-wide key combination: the physical key by its evdev code (the Linux input layer's number for
// the key position; X11 reports it + 8) and the modifiers as the X core protocol numbers them.
struct NativeHotKey
{
    // Modifier masks of the X core protocol (and of XKB, which Wayland compositors share).
    static constexpr quint32 ShiftMask = 0x01;
    static constexpr quint32 ControlMask = 0x04;
    static constexpr quint32 AltMask = 0x08;   // Mod1
    static constexpr quint32 SuperMask = 0x40; // Mod4
    static constexpr quint32 ModifierMask = ShiftMask | ControlMask | AltMask | SuperMask;

    quint32 keyCode = 0;
    quint32 modifiers = 0;

    friend bool operator==(const NativeHotKey &, const NativeHotKey &) = default;
};

inline size_t qHash(const NativeHotKey &key, size_t seed = 0) noexcept
{
    return qHashMulti(seed, key.keyCode, key.modifiers);
}

// One key event of a grabbed combination, as the server reported it.
struct NativeHotKeyEvent
{
    NativeHotKey hotKey;
    bool pressed = true;
    // Server time in milliseconds; an auto-repeated release and press share one time stamp.
    quint32 timestampMs = 0;
};

// Takes key combinations system-wide, so that their key events reach this process whichever window has
// the keyboard focus. Used on the GUI thread only.
class GlobalHotKeyBackend
{
public:
    using EventHandler = std::function<void(const NativeHotKeyEvent &)>;

    virtual ~GlobalHotKeyBackend() = default;

    // False when the system refuses the combination, for example because another client holds it.
    virtual bool grab(const NativeHotKey &hotKey) = 0;
    virtual void ungrab(const NativeHotKey &hotKey) = 0;
    // Receives press and release events of grabbed combinations, on the GUI thread.
    virtual void setEventHandler(EventHandler handler) = 0;
};
