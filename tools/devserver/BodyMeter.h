// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

// Counts the bytes of a streamed body for the request log. cpp-httplib runs routing, the content
// provider and the logger of one exchange on the same worker thread and offers no per-exchange slot,
// so the count lives in that thread.
class BodyMeter
{
public:
    // Forget whatever the previous exchange on this thread left behind.
    static void reset();
    static void beginStream();
    static void add(std::size_t bytes);
    // The streamed byte count, or nothing when this exchange's body was not streamed. Resets.
    static std::optional<std::uint64_t> takeStreamedBytes();
};
