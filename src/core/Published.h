// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <utility>

// Stores `value` in a published field; true when it changed, so that the caller emits its signal.
template<typename T, typename U> bool assignIfChanged(T &field, U &&value)
{
    if (field == value)
        return false;
    field = std::forward<U>(value);
    return true;
}
