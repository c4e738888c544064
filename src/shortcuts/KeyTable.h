// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <Qt>
#include <QtGlobal>

#include <optional>

// The named keys of global shortcuts, identified by their virtual key codes (the stored model: the
// HIToolbox numbering, positional on an ANSI keyboard, e.g. A = 0, S = 1, C = 8), and the modifier bit
// set of the stored model. Maps both to the Linux keyboard positionally: a virtual key code names the
// key at the same place on a PC keyboard (its evdev code; X keycode = evdev code + 8), whatever the
// layout. Command means Ctrl, Option means Alt, Control means Super and Shift means Shift.
class KeyTable
{
public:
    static constexpr quint32 kVK_ANSI_A = 0;
    static constexpr quint32 kVK_ANSI_S = 1;
    static constexpr quint32 kVK_ANSI_C = 8;
    static constexpr quint32 kVK_ANSI_Q = 12;
    static constexpr quint32 kVK_ANSI_W = 13;
    static constexpr quint32 kVK_ANSI_E = 14;
    static constexpr quint32 kVK_ANSI_R = 15;
    static constexpr quint32 kVK_ANSI_Y = 16;
    static constexpr quint32 kVK_ANSI_T = 17;
    static constexpr quint32 kVK_Escape = 53;
    static constexpr quint32 kVK_Function = 63;
    static constexpr quint32 kVK_F1 = 122;

    static constexpr quint64 Shift = 0x20000;
    static constexpr quint64 Control = 0x40000;
    static constexpr quint64 Option = 0x80000;
    static constexpr quint64 Command = 0x100000;
    // The four modifiers a shortcut can use.
    static constexpr quint64 ShortcutModifiers = Shift | Control | Option | Command;

    // Whether the code names one of the 114 keys (0-126 except 13 gaps).
    static bool isNamedKey(quint32 virtualKeyCode);
    static int namedKeyCount();
    // The pressed-alone keys Shift, Control, Option, Command (left and right), Caps Lock and Function.
    static bool isModifierKey(quint32 virtualKeyCode);

    // The key's name in a shortcut's display parts: "A"-"Z", "0"-"9", "Space", "⇥", "↩", "↑", "→", "↓",
    // "←", "⎋", "⌫", and "?" for every other key. Nothing for a code that names no key.
    static std::optional<QString> displayName(quint32 virtualKeyCode);
    // The key's label on a PC keyboard, for our own windows ("S", "Space", "Backspace", "F1", "Num 5").
    static std::optional<QString> linuxLabel(quint32 virtualKeyCode);

    // The key's X keysym name on a US layout, as shortcut strings of X, sway and the desktop portal write
    // it ("s", "space", "Return", "F1", "KP_5"). Nothing for modifier keys and codes that name no key.
    static std::optional<QString> keysymName(quint32 virtualKeyCode);

    // The evdev code of the key at the same position; nothing for keys that PC keyboards lack (Function).
    static std::optional<quint32> evdevCode(quint32 virtualKeyCode);
    static std::optional<quint32> xKeyCode(quint32 virtualKeyCode);
    static std::optional<quint32> virtualKeyCodeForXKeyCode(quint32 xKeyCode);

    // The stored modifier bits as X modifier masks and back; bits outside the four are left out.
    static quint32 xModifiers(quint64 modifierFlags);
    static quint64 modifierFlagsForXModifiers(quint32 xModifiers);
    // Qt's modifiers of a key event on Linux (Ctrl, Alt, Meta = Super, Shift) as stored modifier bits.
    static quint64 modifierFlagsForQt(Qt::KeyboardModifiers modifiers);
};
