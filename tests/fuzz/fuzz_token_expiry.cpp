// SPDX-License-Identifier: GPL-3.0-or-later
// The expiry of a stored access token (a JWT): anything unreadable counts as expired, and a larger
// margin never makes an expired token valid again.
#include "FuzzCheck.h"
#include "account/AuthManager.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <QDateTime>

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const auto margin = input.ConsumeIntegralInRange<qint64>(-(qint64(1) << 40), qint64(1) << 40);
    const auto nowSeconds = input.ConsumeIntegralInRange<qint64>(0, qint64(1) << 36);
    const std::string token = input.ConsumeRemainingBytesAsString();
    const QString text = QString::fromUtf8(token.data(), qsizetype(token.size()));
    const QDateTime now = QDateTime::fromSecsSinceEpoch(nowSeconds, Qt::UTC);

    const bool expired = AuthManager::isTokenExpired(text, margin, now);
    if (expired)
        FUZZ_CHECK(AuthManager::isTokenExpired(text, margin + 3600, now));
    if (text.count(u'.') != 2)
        FUZZ_CHECK(expired);
    return 0;
}
