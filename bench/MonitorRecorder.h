// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// What the latency benchmarks share: timing helpers and a recorder that notes, on steady_clock, when the
// first sound reached the monitor of a PulseServer's null sink "t".
//
// The monitor is recorded in this process with 5 ms fragments; when a peeked fragment holds the first
// sample above the threshold, the record stream's latency (interpolated, kept up to date by the server)
// says how long ago the fragment's first sample was played by the sink, since for a monitor it includes
// the sink's own latency (and so may be negative). Sample i of the fragment was therefore played at
// now - latency + i / rate. correctionMs() reports that correction: fragments arrive every 5 ms, so it
// is a few milliseconds at most, and a large one would point at a stalled recorder.
#include "BenchTiming.h"
#include "PulseServer.h"

#include <pulse/pulseaudio.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <functional>
#include <vector>

namespace bench {

constexpr float kThreshold = 0.01f;

// Records the monitor of the null sink "t" and notes when the first sound after arm() was played.
class MonitorRecorder
{
public:
    ~MonitorRecorder()
    {
        if (m_mainloop)
            pa_threaded_mainloop_stop(m_mainloop);
        if (m_stream)
            pa_stream_unref(m_stream);
        if (m_context) {
            pa_context_disconnect(m_context);
            pa_context_unref(m_context);
        }
        if (m_mainloop)
            pa_threaded_mainloop_free(m_mainloop);
    }

    bool start(const QString &server)
    {
        m_mainloop = pa_threaded_mainloop_new();
        m_context = pa_context_new(pa_threaded_mainloop_get_api(m_mainloop), "quillvox-bench-monitor");
        const QByteArray address = server.toLocal8Bit();
        if (pa_context_connect(m_context, address.constData(), PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0 ||
            pa_threaded_mainloop_start(m_mainloop) < 0)
            return false;
        if (!waitFor(
                [this] {
                    pa_threaded_mainloop_lock(m_mainloop);
                    const pa_context_state_t state = pa_context_get_state(m_context);
                    pa_threaded_mainloop_unlock(m_mainloop);
                    return state == PA_CONTEXT_READY || !PA_CONTEXT_IS_GOOD(state);
                },
                5000))
            return false;
        const pa_sample_spec format{PA_SAMPLE_FLOAT32LE, PulseServer::kRateHz, 1};
        pa_buffer_attr attr{};
        attr.maxlength = std::uint32_t(-1);
        attr.fragsize = std::uint32_t(pa_usec_to_bytes(5000, &format));
        pa_threaded_mainloop_lock(m_mainloop);
        m_stream = pa_stream_new(m_context, "monitor", &format, nullptr);
        pa_stream_set_read_callback(m_stream, &MonitorRecorder::onRead, this);
        const int rc = pa_stream_connect_record(m_stream, "t.monitor", &attr,
                                                pa_stream_flags_t(PA_STREAM_ADJUST_LATENCY |
                                                                  PA_STREAM_INTERPOLATE_TIMING |
                                                                  PA_STREAM_AUTO_TIMING_UPDATE));
        pa_threaded_mainloop_unlock(m_mainloop);
        return rc == 0;
    }

    void arm()
    {
        m_heard.store(false);
        m_armed.store(true);
    }
    bool heard() const { return m_heard.load(); }
    Clock::time_point heardAt() const { return m_heardAt; }
    double correctionMs() const { return m_correctionMs; }

private:
    static void onRead(pa_stream *stream, std::size_t, void *userdata)
    {
        auto *self = static_cast<MonitorRecorder *>(userdata);
        const void *data = nullptr;
        std::size_t bytes = 0;
        while (pa_stream_readable_size(stream) > 0 && pa_stream_peek(stream, &data, &bytes) == 0 &&
               bytes > 0) {
            if (data && self->m_armed.load())
                self->scan(stream, static_cast<const float *>(data), bytes / sizeof(float));
            pa_stream_drop(stream);
        }
    }

    void scan(pa_stream *stream, const float *samples, std::size_t count)
    {
        const Clock::time_point now = Clock::now();
        const auto loud =
            std::find_if(samples, samples + count, [](float s) { return std::abs(s) > kThreshold; });
        if (loud == samples + count)
            return;
        pa_usec_t usec = 0;
        int negative = 0;
        double latencyMs = 0;
        if (pa_stream_get_latency(stream, &usec, &negative) == 0)
            latencyMs = (negative ? -1.0 : 1.0) * double(usec) / 1000.0;
        m_correctionMs = double(loud - samples) * 1000.0 / PulseServer::kRateHz - latencyMs;
        m_heardAt = now + std::chrono::duration_cast<Clock::duration>(
                              std::chrono::duration<double, std::milli>(m_correctionMs));
        m_armed.store(false);
        m_heard.store(true);
    }

    pa_threaded_mainloop *m_mainloop = nullptr;
    pa_context *m_context = nullptr;
    pa_stream *m_stream = nullptr;
    std::atomic<bool> m_armed{false};
    std::atomic<bool> m_heard{false};
    Clock::time_point m_heardAt; // written before m_heard is set
    double m_correctionMs = 0;
};

} // namespace bench
