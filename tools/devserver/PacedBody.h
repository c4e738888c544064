// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "StopFlag.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace httplib {
class DataSink;
}

// A cpp-httplib chunked content provider for an audio body: 50 ms pieces released at a multiple of real
// time, optionally cut short by closing the connection mid-body.
class PacedBody
{
public:
    static constexpr std::size_t bytesPerSecond = 48000; // 24 kHz, 16-bit mono
    static constexpr std::size_t pieceBytes = bytesPerSecond / 20;

    // pace 0 sends as fast as the socket takes it.
    PacedBody(const std::vector<std::int16_t> &samples, double pace,
              std::optional<std::uint64_t> cutAfterBytes, const StopFlag &stop);
    // Any encoded body whose audio takes audioBytesPerSecond, after headerBytes that go out with the first
    // piece and take no time; pieceMs of audio a piece.
    PacedBody(std::string bytes, std::size_t headerBytes, double audioBytesPerSecond, int pieceMs,
              double pace, std::optional<std::uint64_t> cutAfterBytes, const StopFlag &stop);

    // Called once, with the bytes sent, when the body has ended however it ended: before the terminating
    // chunk or before the connection is cut, so that a client who has seen the end sees its effects.
    void onEnd(std::function<void(std::uint64_t bytesSent)> callback);
    // Ends the body where it is. For cpp-httplib's resource releaser, which runs when the client went away
    // between pieces; does nothing after the end.
    void finish();

    // Returning false makes cpp-httplib close the connection without the terminating chunk.
    bool operator()(std::size_t offset, httplib::DataSink &sink);

private:
    struct State
    {
        std::string bytes;
        std::size_t sent = 0;
        std::optional<StopFlag::Clock::time_point> started;
        std::function<void(std::uint64_t)> onEnd;
        bool ended = false;
    };

    bool sendNext(httplib::DataSink &sink);

    // Shared because cpp-httplib keeps the provider in a copyable std::function.
    std::shared_ptr<State> m_state;
    double m_bytesPerSecond = bytesPerSecond;
    std::size_t m_pieceBytes = pieceBytes;
    std::size_t m_headerBytes = 0;
    double m_pace;
    std::optional<std::uint64_t> m_cutAfterBytes;
    const StopFlag *m_stop;
};
