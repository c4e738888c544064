// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "account/KeychainHelper.h"

#include <QTest>

#include <optional>

Q_DECLARE_METATYPE(KeychainKey)
Q_DECLARE_METATYPE(std::optional<QString>)

// Readable failure messages for the helper's optional results.
namespace QTest {
template<> inline char *toString(const std::optional<QString> &value)
{
    return value ? toString(*value) : qstrdup("nothing");
}
template<> inline char *toString(const std::optional<QByteArray> &value)
{
    return value ? toString(*value) : qstrdup("nothing");
}
} // namespace QTest
