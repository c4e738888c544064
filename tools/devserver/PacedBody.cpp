// SPDX-License-Identifier: GPL-3.0-or-later
#include "PacedBody.h"

#include "BodyMeter.h"

#include <httplib.h>

#include <algorithm>
#include <utility>

PacedBody::PacedBody(const std::vector<std::int16_t> &samples, double pace,
                     std::optional<std::uint64_t> cutAfterBytes, const StopFlag &stop)
    : m_state(std::make_shared<State>())
    , m_pace(pace)
    , m_cutAfterBytes(cutAfterBytes)
    , m_stop(&stop)
{
    // Little-endian on the wire whatever this machine's byte order.
    std::string &bytes = m_state->bytes;
    bytes.resize(samples.size() * 2);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const auto bits = static_cast<std::uint16_t>(samples[i]);
        bytes[2 * i] = static_cast<char>(bits & 0xff);
        bytes[2 * i + 1] = static_cast<char>(bits >> 8);
    }
}

PacedBody::PacedBody(std::string bytes, std::size_t headerBytes, double audioBytesPerSecond, int pieceMs,
                     double pace, std::optional<std::uint64_t> cutAfterBytes, const StopFlag &stop)
    : m_state(std::make_shared<State>())
    , m_bytesPerSecond(audioBytesPerSecond)
    , m_pieceBytes(std::max<std::size_t>(1, static_cast<std::size_t>(audioBytesPerSecond * pieceMs / 1000)))
    , m_headerBytes(headerBytes)
    , m_pace(pace)
    , m_cutAfterBytes(cutAfterBytes)
    , m_stop(&stop)
{
    m_state->bytes = std::move(bytes);
}

void PacedBody::onEnd(std::function<void(std::uint64_t)> callback)
{
    m_state->onEnd = std::move(callback);
}

void PacedBody::finish()
{
    State &state = *m_state;
    if (std::exchange(state.ended, true))
        return;
    if (state.onEnd)
        state.onEnd(state.sent);
}

bool PacedBody::operator()(std::size_t, httplib::DataSink &sink)
{
    const bool more = sendNext(sink);
    if (!more)
        finish();
    return more;
}

bool PacedBody::sendNext(httplib::DataSink &sink)
{
    State &state = *m_state;
    const auto now = StopFlag::Clock::now();
    if (!state.started)
        state.started = now;

    const bool cutting = m_cutAfterBytes && *m_cutAfterBytes < state.bytes.size();
    const std::size_t end = cutting ? static_cast<std::size_t>(*m_cutAfterBytes) : state.bytes.size();
    if (state.sent >= end) {
        if (cutting)
            return false;
        finish();
        sink.done();
        return true;
    }

    if (m_pace > 0) {
        // Each piece leaves when the audio before it would have finished playing at this pace, so the
        // first piece goes out with the head.
        const std::size_t audioSent = state.sent > m_headerBytes ? state.sent - m_headerBytes : 0;
        const std::chrono::duration<double> due(static_cast<double>(audioSent) / m_bytesPerSecond / m_pace);
        if (!m_stop->sleepUntil(*state.started + std::chrono::duration_cast<StopFlag::Clock::duration>(due)))
            return false;
    } else if (m_stop->isRaised()) {
        return false;
    }

    const std::size_t length =
        std::min(m_pieceBytes + (state.sent == 0 ? m_headerBytes : 0), end - state.sent);
    if (!sink.write(state.bytes.data() + state.sent, length))
        return false;
    state.sent += length;
    BodyMeter::add(length);
    return true;
}
