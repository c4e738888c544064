// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "StopFlag.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace httplib {
class DataSink;
}

// A cpp-httplib chunked content provider for PCM audio: 50 ms pieces released at a multiple of real
// time, optionally cut short by closing the connection mid-body.
class PacedBody
{
public:
    static constexpr std::size_t bytesPerSecond = 48000; // 24 kHz, 16-bit mono
    static constexpr std::size_t pieceBytes = bytesPerSecond / 20;

    // pace 0 sends as fast as the socket takes it.
    PacedBody(const std::vector<std::int16_t> &samples, double pace,
              std::optional<std::uint64_t> cutAfterBytes, const StopFlag &stop);

    // Returning false makes cpp-httplib close the connection without the terminating chunk.
    bool operator()(std::size_t offset, httplib::DataSink &sink);

private:
    struct State
    {
        std::string bytes;
        std::size_t sent = 0;
        std::optional<StopFlag::Clock::time_point> started;
    };

    // Shared because cpp-httplib keeps the provider in a copyable std::function.
    std::shared_ptr<State> m_state;
    double m_pace;
    std::optional<std::uint64_t> m_cutAfterBytes;
    const StopFlag *m_stop;
};
