// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "account/KeychainHelper.h"

#include <QTest>

#include <optional>

Q_DECLARE_METATYPE(KeychainKey)
Q_DECLARE_METATYPE(std::optional<QString>)
Q_DECLARE_METATYPE(std::optional<QByteArray>)

// Readable failure messages for the helper's optional results (found by argument-dependent lookup).
template<typename T> char *toString(const std::optional<T> &value)
{
    return value ? QTest::toString(*value) : qstrdup("nothing");
}
