// SPDX-License-Identifier: GPL-3.0-or-later
// The stored usage counts of one period: whatever decodes encodes again to the same counts.
#include "FuzzCheck.h"
#include "records/UsageStats.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray json(reinterpret_cast<const char *>(data), qsizetype(size));
    const auto stats = UsageStats::fromJson(json);
    if (!stats)
        return 0;
    const auto again = UsageStats::fromJson(stats->toJson());
    FUZZ_CHECK(again && *again == *stats);
    return 0;
}
