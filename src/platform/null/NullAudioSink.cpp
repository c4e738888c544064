// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/null/NullAudioSink.h"

#include <chrono>

NullAudioSink::NullAudioSink(Clock clock, double pace)
    : m_clock(clock)
    , m_pace(pace)
{}

NullAudioSink::~NullAudioSink()
{
    close();
}

bool NullAudioSink::open(AudioRenderSource *source, QString *error)
{
    close();
    if (!m_openError.isEmpty()) {
        if (error)
            *error = m_openError;
        return false;
    }
    m_source = source;
    m_active = false;
    m_unheardFrames = 0;
    ++m_openCount;
    m_open = true;
    if (m_clock == Clock::RealTime) {
        m_quit = false;
        m_thread = std::thread([this] { runRealTime(); });
    }
    return true;
}

bool NullAudioSink::isOpen() const
{
    return m_open;
}

void NullAudioSink::setActive(bool active)
{
    {
        std::lock_guard lock(m_mutex);
        m_active = active;
    }
    m_wake.notify_all();
}

bool NullAudioSink::isActive() const
{
    return m_active;
}

void NullAudioSink::discardPending()
{
    ++m_discardCount;
    m_unheardFrames = 0;
}

void NullAudioSink::close()
{
    if (m_thread.joinable()) {
        {
            std::lock_guard lock(m_mutex);
            m_quit = true;
        }
        m_wake.notify_all();
        m_thread.join();
    }
    m_open = false;
    m_active = false;
    m_source = nullptr;
}

std::span<const float> NullAudioSink::advance(std::size_t frames, std::int64_t deviceDelayFrames)
{
    if (m_clock != Clock::Manual || !m_open)
        return {};
    m_pulled.assign(frames, 0.0f);
    if (m_active) {
        m_source->render(m_pulled.data(), frames, m_unheardFrames);
        m_unheardFrames = deviceDelayFrames;
        // The time has passed: tell the source how far playback got, without pulling more.
        m_source->render(m_pulled.data() + frames, 0, m_unheardFrames);
    }
    return m_pulled;
}

void NullAudioSink::runRealTime()
{
    using Clock = std::chrono::steady_clock;
    const auto kStep = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(double(kRealTimeStepFrames) / kSampleRateHz / m_pace));
    std::vector<float> buffer(kRealTimeStepFrames);
    auto next = Clock::now();
    std::unique_lock lock(m_mutex);
    while (!m_quit) {
        if (!m_active) {
            m_wake.wait(lock, [this] { return m_quit || m_active; });
            next = Clock::now();
            continue;
        }
        lock.unlock();
        // Each step plays during the next 10 ms, so at the next pull all of it has been heard.
        m_source->render(buffer.data(), buffer.size(), 0);
        lock.lock();
        next += kStep;
        // After a stall (a suspended machine), carry on from now rather than rendering a burst.
        if (Clock::now() - next > 10 * kStep)
            next = Clock::now();
        m_wake.wait_until(lock, next, [this] { return m_quit; });
    }
}
