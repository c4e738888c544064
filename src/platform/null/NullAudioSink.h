// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/AudioSink.h"

#include <QString>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>
#include <thread>
#include <vector>

// An output without a device. With the manual clock, a test moves time itself and reads what was
// rendered; with the real-time clock a thread pulls audio at the pace of a real device (10 ms steps) and
// throws it away, so that narrations still run and end when there is no sound server to use. A `pace`
// above 1 pulls that many times faster, for soaks that play hundreds of narrations.
class NullAudioSink final : public AudioSink
{
public:
    enum class Clock { Manual, RealTime };
    static constexpr int kSampleRateHz = 24000;
    static constexpr std::size_t kRealTimeStepFrames = kSampleRateHz / 100;

    explicit NullAudioSink(Clock clock = Clock::Manual, double pace = 1.0);
    ~NullAudioSink() override;

    bool open(AudioRenderSource *source, QString *error) override;
    bool isOpen() const override;
    void setActive(bool active) override;
    void discardPending() override;
    void close() override;

    // Manual clock: `frames` frames of time pass while the device plays. An active device pulls them from
    // the source during that time, and afterwards still holds `deviceDelayFrames` of what it has pulled
    // so far unheard (0: everything pulled has been heard). An inactive device pulls nothing and keeps
    // what it holds. Returns what was pulled, valid until the next call.
    std::span<const float> advance(std::size_t frames, std::int64_t deviceDelayFrames = 0);

    bool isActive() const;
    int openCount() const { return m_openCount; }
    int discardCount() const { return m_discardCount; }
    // Every open() fails with this reason until it is cleared.
    void setOpenError(const QString &reason) { m_openError = reason; }
    // Reports a lost device, as a sound server going away would.
    void simulateFailure(const QString &reason) { reportFailure(reason); }

private:
    void runRealTime();

    const Clock m_clock;
    const double m_pace;
    AudioRenderSource *m_source = nullptr;
    std::atomic<bool> m_open{false};
    std::atomic<bool> m_active{false};
    QString m_openError;
    int m_openCount = 0;
    int m_discardCount = 0;
    std::vector<float> m_pulled;
    std::int64_t m_unheardFrames = 0;

    std::thread m_thread;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_quit = false;
};
