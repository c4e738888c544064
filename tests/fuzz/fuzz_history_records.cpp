// SPDX-License-Identifier: GPL-3.0-or-later
// The stored history list: whatever decodes encodes again to a list that decodes to the same entries.
#include "FuzzCheck.h"
#include "records/NarrationSession.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray json(reinterpret_cast<const char *>(data), qsizetype(size));
    const auto sessions = NarrationSession::decodeList(json);
    if (!sessions)
        return 0;
    for (const NarrationSession &s : *sessions) {
        FUZZ_CHECK(s.timestamp.isValid());
        s.formattedDuration();
    }
    const auto again = NarrationSession::decodeList(NarrationSession::encodeList(*sessions));
    FUZZ_CHECK(again && *again == *sessions);
    return 0;
}
