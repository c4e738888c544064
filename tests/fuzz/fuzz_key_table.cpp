// SPDX-License-Identifier: GPL-3.0-or-later
// The key table over every code and modifier mask: named keys and only they have names and labels,
// the X mapping goes back to the same key, and the four modifiers survive the X and Qt mappings.
#include "FuzzCheck.h"
#include "shortcuts/KeyTable.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const auto code = input.ConsumeIntegral<quint32>();
    const auto flags = input.ConsumeIntegral<quint64>();
    const auto xModifiers = input.ConsumeIntegral<quint32>();
    const auto xKey = input.ConsumeIntegral<quint32>();

    const bool named = KeyTable::isNamedKey(code);
    FUZZ_CHECK(KeyTable::displayName(code).has_value() == named);
    FUZZ_CHECK(KeyTable::linuxLabel(code).has_value() == named);
    if (KeyTable::isModifierKey(code))
        FUZZ_CHECK(named);
    if (const auto x = KeyTable::xKeyCode(code)) {
        FUZZ_CHECK(named && KeyTable::evdevCode(code) == *x - 8);
        FUZZ_CHECK(KeyTable::virtualKeyCodeForXKeyCode(*x) == code);
    }
    if (const auto back = KeyTable::virtualKeyCodeForXKeyCode(xKey))
        FUZZ_CHECK(KeyTable::xKeyCode(*back) == xKey);

    const quint64 shortcut = flags & KeyTable::ShortcutModifiers;
    FUZZ_CHECK(KeyTable::modifierFlagsForXModifiers(KeyTable::xModifiers(flags)) == shortcut);
    FUZZ_CHECK((KeyTable::modifierFlagsForXModifiers(xModifiers) & ~KeyTable::ShortcutModifiers) == 0);
    const auto qtModifiers = Qt::KeyboardModifiers::fromInt(int(xModifiers));
    FUZZ_CHECK((KeyTable::modifierFlagsForQt(qtModifiers) & ~KeyTable::ShortcutModifiers) == 0);
    return 0;
}
