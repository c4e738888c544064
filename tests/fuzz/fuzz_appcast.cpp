// SPDX-License-Identifier: GPL-3.0-or-later
// An update feed from the network: parsing answers items or a reason, every item has a version, and the
// version order is a consistent order on the versions found (the newest is not older than any item).
#include "FuzzCheck.h"
#include "updates/AppcastFeed.h"

#include <cstdint>

namespace {

int sign(int n)
{
    return (n > 0) - (n < 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray xml(reinterpret_cast<const char *>(data), qsizetype(size));
    const auto parsed = Appcast::parse(xml);
    if (const auto *reason = std::get_if<QString>(&parsed)) {
        FUZZ_CHECK(!reason->isEmpty());
        return 0;
    }
    const QList<AppcastItem> &items = std::get<QList<AppcastItem>>(parsed);
    for (const AppcastItem &item : items)
        FUZZ_CHECK(!item.version.isEmpty() && !item.displayVersion().isEmpty());
    const auto best = Appcast::newest(items);
    FUZZ_CHECK(best.has_value() == !items.isEmpty());
    const qsizetype n = std::min<qsizetype>(items.size(), 8);
    for (qsizetype i = 0; i < n; ++i) {
        const QString &a = items[i].version;
        FUZZ_CHECK(Appcast::compareVersions(a, a) == 0);
        FUZZ_CHECK(Appcast::compareVersions(best->version, a) >= 0);
        for (qsizetype j = 0; j < n; ++j) {
            const QString &b = items[j].version;
            FUZZ_CHECK(sign(Appcast::compareVersions(a, b)) == -sign(Appcast::compareVersions(b, a)));
        }
    }
    return 0;
}
