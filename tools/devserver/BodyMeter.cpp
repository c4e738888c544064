// SPDX-License-Identifier: GPL-3.0-or-later
#include "BodyMeter.h"

#include <utility>

namespace {
thread_local std::optional<std::uint64_t> streamedBytes;
} // namespace

void BodyMeter::reset()
{
    streamedBytes.reset();
}

void BodyMeter::beginStream()
{
    streamedBytes = 0;
}

void BodyMeter::add(std::size_t bytes)
{
    if (streamedBytes)
        *streamedBytes += bytes;
}

std::optional<std::uint64_t> BodyMeter::takeStreamedBytes()
{
    return std::exchange(streamedBytes, std::nullopt);
}
