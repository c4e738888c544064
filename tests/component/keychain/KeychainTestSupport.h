// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "account/KeychainHelper.h"

#include <QTest>

#include <functional>
#include <optional>

Q_DECLARE_METATYPE(KeychainKey)
Q_DECLARE_METATYPE(std::optional<QString>)
Q_DECLARE_METATYPE(std::optional<QByteArray>)

// One of the helper's calls on the API key; true when it succeeded.
using KeychainCall = std::function<bool(KeychainHelper &)>;

// A "call" column with a row for each of save, load and remove.
inline void addKeychainCallRows()
{
    QTest::addColumn<KeychainCall>("call");
    QTest::newRow("save") << KeychainCall(
        [](KeychainHelper &k) { return k.save(QStringLiteral("sk-new"), KeychainKey::openAIAPIKey); });
    QTest::newRow("load") << KeychainCall(
        [](KeychainHelper &k) { return k.load(KeychainKey::openAIAPIKey).has_value(); });
    QTest::newRow("remove") << KeychainCall(
        [](KeychainHelper &k) { return k.remove(KeychainKey::openAIAPIKey); });
}

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
