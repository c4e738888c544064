// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QTest>

#include <optional>

// Readable failure messages for the helper's optional results (found by argument-dependent lookup).
template<typename T> char *toString(const std::optional<T> &value)
{
    return value ? QTest::toString(*value) : qstrdup("nothing");
}
