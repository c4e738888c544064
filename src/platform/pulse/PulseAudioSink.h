// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/AudioSink.h"

#include <QString>

#include <atomic>
#include <cstddef>
#include <cstdint>

struct pa_threaded_mainloop;
struct pa_context;
struct pa_stream;
struct pa_mainloop_api;
struct pa_time_event;
struct timeval;

// Plays through PulseAudio (or PipeWire's PulseAudio service): one float32 mono 24 kHz playback stream
// with a low-latency target, fed from libpulse's threaded main loop. The server is the one libpulse
// finds by itself (PULSE_SERVER, then the session's). Corked while inactive, so an idle narration costs
// nothing: timing updates are asked for only while the server asks for audio (libpulse's automatic ones
// would wake an idle stream every 1.5 s). A server that dies or restarts is reported through the failure
// handler, and open() connects anew.
class PulseAudioSink final : public AudioSink
{
public:
    static constexpr int kSampleRateHz = 24000;
    // Pause, stop and seeks are immediate whatever the buffer (cork and flush); a speed change is heard
    // after it. The request size sets how often the render thread wakes, and stays well below the
    // target so that the server's own device latency (target - 2 requests, halved: 50 ms) is not driven
    // down. Each write costs a second wake-up too: the server releases its shared memory block.
    static constexpr int kTargetLatencyMs = 300;
    static constexpr int kRequestMs = 100;
    // Timing updates while playing: from every request after a cork or flush to this, doubling.
    static constexpr int kMaxTimingIntervalMs = 1500;

    // `connectTimeoutMs` bounds open() when a server accepts the connection but never answers.
    explicit PulseAudioSink(int connectTimeoutMs = 5000);
    ~PulseAudioSink() override;

    bool open(AudioRenderSource *source, QString *error) override;
    bool isOpen() const override;
    void setActive(bool active) override;
    void discardPending() override;
    void close() override;

private:
    static void onContextState(pa_context *context, void *userdata);
    static void onStreamState(pa_stream *stream, void *userdata);
    static void onWrite(pa_stream *stream, std::size_t bytes, void *userdata);
    static void onTimeout(pa_mainloop_api *api, pa_time_event *event, const struct timeval *tv,
                          void *userdata);
    static void onTimingUpdated(pa_stream *stream, int success, void *userdata);
    // With the main loop locked. `restart`: the last timing is void (cork, flush), ask at once and
    // then ever less often.
    void requestTiming(pa_stream *stream, bool restart);
    bool connect(QString *error);
    std::int64_t unheardFrames(pa_stream *stream);
    void lost(const QString &reason);

    const int m_connectTimeoutMs;
    AudioRenderSource *m_source = nullptr;
    pa_threaded_mainloop *m_mainloop = nullptr;
    pa_context *m_context = nullptr;
    pa_stream *m_stream = nullptr;
    // The flags below are touched under the main loop's lock.
    bool m_timedOut = false;
    bool m_established = false;
    bool m_closing = false;
    bool m_lost = false;
    std::int64_t m_lastUnheardFrames = 0;
    bool m_timingPending = false;
    std::uint64_t m_nextTimingUsec = 0;
    std::uint64_t m_timingIntervalUsec = 0;
    std::atomic<bool> m_open{false};
};
