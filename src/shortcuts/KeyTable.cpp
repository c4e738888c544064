// SPDX-License-Identifier: GPL-3.0-or-later
#include "shortcuts/KeyTable.h"

#include "platform/GlobalHotKeyBackend.h"

#include <QHash>

#include <linux/input-event-codes.h>

#include <array>

namespace {

// No evdev code: the key has no counterpart on a PC keyboard.
constexpr quint32 kNoEvdev = 0;

struct NamedKey
{
    quint32 virtualKeyCode;
    quint32 evdev;
    const char16_t *displayName; // null: shown as "?"
    const char16_t *linuxLabel;
};

// Every named key in virtual key code order. The evdev column is positional: the PC key that sits where
// the Apple ANSI key sits. Help sits where Insert is; the keypad's Clear where Num Lock is.
constexpr std::array<NamedKey, 114> kKeys = {{
    {0, KEY_A, u"A", u"A"},
    {1, KEY_S, u"S", u"S"},
    {2, KEY_D, u"D", u"D"},
    {3, KEY_F, u"F", u"F"},
    {4, KEY_H, u"H", u"H"},
    {5, KEY_G, u"G", u"G"},
    {6, KEY_Z, u"Z", u"Z"},
    {7, KEY_X, u"X", u"X"},
    {8, KEY_C, u"C", u"C"},
    {9, KEY_V, u"V", u"V"},
    {10, KEY_102ND, nullptr, u"<"},
    {11, KEY_B, u"B", u"B"},
    {12, KEY_Q, u"Q", u"Q"},
    {13, KEY_W, u"W", u"W"},
    {14, KEY_E, u"E", u"E"},
    {15, KEY_R, u"R", u"R"},
    {16, KEY_Y, u"Y", u"Y"},
    {17, KEY_T, u"T", u"T"},
    {18, KEY_1, u"1", u"1"},
    {19, KEY_2, u"2", u"2"},
    {20, KEY_3, u"3", u"3"},
    {21, KEY_4, u"4", u"4"},
    {22, KEY_6, u"6", u"6"},
    {23, KEY_5, u"5", u"5"},
    {24, KEY_EQUAL, nullptr, u"="},
    {25, KEY_9, u"9", u"9"},
    {26, KEY_7, u"7", u"7"},
    {27, KEY_MINUS, nullptr, u"-"},
    {28, KEY_8, u"8", u"8"},
    {29, KEY_0, u"0", u"0"},
    {30, KEY_RIGHTBRACE, nullptr, u"]"},
    {31, KEY_O, u"O", u"O"},
    {32, KEY_U, u"U", u"U"},
    {33, KEY_LEFTBRACE, nullptr, u"["},
    {34, KEY_I, u"I", u"I"},
    {35, KEY_P, u"P", u"P"},
    {36, KEY_ENTER, u"↩", u"Enter"},
    {37, KEY_L, u"L", u"L"},
    {38, KEY_J, u"J", u"J"},
    {39, KEY_APOSTROPHE, nullptr, u"'"},
    {40, KEY_K, u"K", u"K"},
    {41, KEY_SEMICOLON, nullptr, u";"},
    {42, KEY_BACKSLASH, nullptr, u"\\"},
    {43, KEY_COMMA, nullptr, u","},
    {44, KEY_SLASH, nullptr, u"/"},
    {45, KEY_N, u"N", u"N"},
    {46, KEY_M, u"M", u"M"},
    {47, KEY_DOT, nullptr, u"."},
    {48, KEY_TAB, u"⇥", u"Tab"},
    {49, KEY_SPACE, u"Space", u"Space"},
    {50, KEY_GRAVE, nullptr, u"`"},
    {51, KEY_BACKSPACE, u"⌫", u"Backspace"},
    {53, KEY_ESC, u"⎋", u"Esc"},
    {54, KEY_RIGHTCTRL, nullptr, u"Right Ctrl"},
    {55, KEY_LEFTCTRL, nullptr, u"Ctrl"},
    {56, KEY_LEFTSHIFT, nullptr, u"Shift"},
    {57, KEY_CAPSLOCK, nullptr, u"Caps Lock"},
    {58, KEY_LEFTALT, nullptr, u"Alt"},
    {59, KEY_LEFTMETA, nullptr, u"Super"},
    {60, KEY_RIGHTSHIFT, nullptr, u"Right Shift"},
    {61, KEY_RIGHTALT, nullptr, u"Right Alt"},
    {62, KEY_RIGHTMETA, nullptr, u"Right Super"},
    {63, kNoEvdev, nullptr, u"Fn"},
    {64, KEY_F17, nullptr, u"F17"},
    {65, KEY_KPDOT, nullptr, u"Num ."},
    {67, KEY_KPASTERISK, nullptr, u"Num *"},
    {69, KEY_KPPLUS, nullptr, u"Num +"},
    {71, KEY_NUMLOCK, nullptr, u"Num Lock"},
    {72, KEY_VOLUMEUP, nullptr, u"Volume Up"},
    {73, KEY_VOLUMEDOWN, nullptr, u"Volume Down"},
    {74, KEY_MUTE, nullptr, u"Mute"},
    {75, KEY_KPSLASH, nullptr, u"Num /"},
    {76, KEY_KPENTER, nullptr, u"Num Enter"},
    {78, KEY_KPMINUS, nullptr, u"Num -"},
    {79, KEY_F18, nullptr, u"F18"},
    {80, KEY_F19, nullptr, u"F19"},
    {81, KEY_KPEQUAL, nullptr, u"Num ="},
    {82, KEY_KP0, nullptr, u"Num 0"},
    {83, KEY_KP1, nullptr, u"Num 1"},
    {84, KEY_KP2, nullptr, u"Num 2"},
    {85, KEY_KP3, nullptr, u"Num 3"},
    {86, KEY_KP4, nullptr, u"Num 4"},
    {87, KEY_KP5, nullptr, u"Num 5"},
    {88, KEY_KP6, nullptr, u"Num 6"},
    {89, KEY_KP7, nullptr, u"Num 7"},
    {90, KEY_F20, nullptr, u"F20"},
    {91, KEY_KP8, nullptr, u"Num 8"},
    {92, KEY_KP9, nullptr, u"Num 9"},
    {96, KEY_F5, nullptr, u"F5"},
    {97, KEY_F6, nullptr, u"F6"},
    {98, KEY_F7, nullptr, u"F7"},
    {99, KEY_F3, nullptr, u"F3"},
    {100, KEY_F8, nullptr, u"F8"},
    {101, KEY_F9, nullptr, u"F9"},
    {103, KEY_F11, nullptr, u"F11"},
    {105, KEY_F13, nullptr, u"F13"},
    {106, KEY_F16, nullptr, u"F16"},
    {107, KEY_F14, nullptr, u"F14"},
    {109, KEY_F10, nullptr, u"F10"},
    {111, KEY_F12, nullptr, u"F12"},
    {113, KEY_F15, nullptr, u"F15"},
    {114, KEY_INSERT, nullptr, u"Insert"},
    {115, KEY_HOME, nullptr, u"Home"},
    {116, KEY_PAGEUP, nullptr, u"Page Up"},
    {117, KEY_DELETE, nullptr, u"Delete"},
    {118, KEY_F4, nullptr, u"F4"},
    {119, KEY_END, nullptr, u"End"},
    {120, KEY_F2, nullptr, u"F2"},
    {121, KEY_PAGEDOWN, nullptr, u"Page Down"},
    {122, KEY_F1, nullptr, u"F1"},
    {123, KEY_LEFT, u"←", u"Left"},
    {124, KEY_RIGHT, u"→", u"Right"},
    {125, KEY_DOWN, u"↓", u"Down"},
    {126, KEY_UP, u"↑", u"Up"},
}};

constexpr quint32 kEvdevToXKeyCode = 8;

const NamedKey *find(quint32 virtualKeyCode)
{
    // Sorted by code, so a binary search would do; the table is small enough that clarity wins.
    for (const NamedKey &k : kKeys) {
        if (k.virtualKeyCode == virtualKeyCode)
            return &k;
    }
    return nullptr;
}

} // namespace

bool KeyTable::isNamedKey(quint32 virtualKeyCode)
{
    return find(virtualKeyCode) != nullptr;
}

int KeyTable::namedKeyCount()
{
    return int(kKeys.size());
}

bool KeyTable::isModifierKey(quint32 virtualKeyCode)
{
    return virtualKeyCode >= 54 && virtualKeyCode <= 63;
}

std::optional<QString> KeyTable::displayName(quint32 virtualKeyCode)
{
    const NamedKey *k = find(virtualKeyCode);
    if (!k)
        return std::nullopt;
    return k->displayName ? QString::fromUtf16(k->displayName) : QStringLiteral("?");
}

std::optional<QString> KeyTable::linuxLabel(quint32 virtualKeyCode)
{
    const NamedKey *k = find(virtualKeyCode);
    if (!k)
        return std::nullopt;
    return QString::fromUtf16(k->linuxLabel);
}

std::optional<QString> KeyTable::keysymName(quint32 virtualKeyCode)
{
    const std::optional<QString> label = linuxLabel(virtualKeyCode);
    if (!label || isModifierKey(virtualKeyCode))
        return std::nullopt;
    // Letters, digits and F keys are their own keysyms (letters in lower case); the rest by label.
    static const QHash<QString, QString> names{
        {QStringLiteral("'"), QStringLiteral("apostrophe")},
        {QStringLiteral(";"), QStringLiteral("semicolon")},
        {QStringLiteral("\\"), QStringLiteral("backslash")},
        {QStringLiteral(","), QStringLiteral("comma")},
        {QStringLiteral("/"), QStringLiteral("slash")},
        {QStringLiteral("."), QStringLiteral("period")},
        {QStringLiteral("`"), QStringLiteral("grave")},
        {QStringLiteral("="), QStringLiteral("equal")},
        {QStringLiteral("-"), QStringLiteral("minus")},
        {QStringLiteral("["), QStringLiteral("bracketleft")},
        {QStringLiteral("]"), QStringLiteral("bracketright")},
        {QStringLiteral("<"), QStringLiteral("less")},
        {QStringLiteral("Enter"), QStringLiteral("Return")},
        {QStringLiteral("Space"), QStringLiteral("space")},
        {QStringLiteral("Backspace"), QStringLiteral("BackSpace")},
        {QStringLiteral("Esc"), QStringLiteral("Escape")},
        {QStringLiteral("Page Up"), QStringLiteral("Prior")},
        {QStringLiteral("Page Down"), QStringLiteral("Next")},
        {QStringLiteral("Num ."), QStringLiteral("KP_Decimal")},
        {QStringLiteral("Num *"), QStringLiteral("KP_Multiply")},
        {QStringLiteral("Num +"), QStringLiteral("KP_Add")},
        {QStringLiteral("Num /"), QStringLiteral("KP_Divide")},
        {QStringLiteral("Num -"), QStringLiteral("KP_Subtract")},
        {QStringLiteral("Num ="), QStringLiteral("KP_Equal")},
        {QStringLiteral("Num Enter"), QStringLiteral("KP_Enter")},
        {QStringLiteral("Num Lock"), QStringLiteral("Num_Lock")},
        {QStringLiteral("Volume Up"), QStringLiteral("XF86AudioRaiseVolume")},
        {QStringLiteral("Volume Down"), QStringLiteral("XF86AudioLowerVolume")},
        {QStringLiteral("Mute"), QStringLiteral("XF86AudioMute")},
    };
    if (const auto it = names.constFind(*label); it != names.constEnd())
        return *it;
    if (label->startsWith(QStringLiteral("Num ")))
        return QStringLiteral("KP_") + label->mid(4);
    if (label->size() == 1)
        return label->toLower();
    return label; // F1-F20, Tab, Insert, Home, End, Delete and the arrows
}

std::optional<quint32> KeyTable::evdevCode(quint32 virtualKeyCode)
{
    const NamedKey *k = find(virtualKeyCode);
    if (!k || k->evdev == kNoEvdev)
        return std::nullopt;
    return k->evdev;
}

std::optional<quint32> KeyTable::xKeyCode(quint32 virtualKeyCode)
{
    const auto evdev = evdevCode(virtualKeyCode);
    if (!evdev)
        return std::nullopt;
    return *evdev + kEvdevToXKeyCode;
}

std::optional<quint32> KeyTable::virtualKeyCodeForXKeyCode(quint32 xKeyCode)
{
    if (xKeyCode <= kEvdevToXKeyCode)
        return std::nullopt;
    const quint32 evdev = xKeyCode - kEvdevToXKeyCode;
    for (const NamedKey &k : kKeys) {
        if (k.evdev == evdev && k.evdev != kNoEvdev)
            return k.virtualKeyCode;
    }
    return std::nullopt;
}

quint32 KeyTable::xModifiers(quint64 modifierFlags)
{
    quint32 x = 0;
    if (modifierFlags & Shift)
        x |= NativeHotKey::ShiftMask;
    if (modifierFlags & Command)
        x |= NativeHotKey::ControlMask;
    if (modifierFlags & Option)
        x |= NativeHotKey::AltMask;
    if (modifierFlags & Control)
        x |= NativeHotKey::SuperMask;
    return x;
}

quint64 KeyTable::modifierFlagsForXModifiers(quint32 xModifiers)
{
    quint64 flags = 0;
    if (xModifiers & NativeHotKey::ShiftMask)
        flags |= Shift;
    if (xModifiers & NativeHotKey::ControlMask)
        flags |= Command;
    if (xModifiers & NativeHotKey::AltMask)
        flags |= Option;
    if (xModifiers & NativeHotKey::SuperMask)
        flags |= Control;
    return flags;
}

quint64 KeyTable::modifierFlagsForQt(Qt::KeyboardModifiers modifiers)
{
    quint64 flags = 0;
    if (modifiers & Qt::ShiftModifier)
        flags |= Shift;
    if (modifiers & Qt::ControlModifier)
        flags |= Command;
    if (modifiers & Qt::AltModifier)
        flags |= Option;
    if (modifiers & Qt::MetaModifier)
        flags |= Control;
    return flags;
}
