// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/pulse/PulseAudioSink.h"

#include "core/Logging.h"

#include <pulse/pulseaudio.h>

#include <algorithm>

namespace {

// Holds the main loop's lock for a scope (from any thread but the loop's own).
class LoopLock
{
public:
    explicit LoopLock(pa_threaded_mainloop *loop)
        : m_loop(loop)
    {
        pa_threaded_mainloop_lock(m_loop);
    }
    ~LoopLock() { pa_threaded_mainloop_unlock(m_loop); }
    LoopLock(const LoopLock &) = delete;
    LoopLock &operator=(const LoopLock &) = delete;

private:
    pa_threaded_mainloop *m_loop;
};

QString errorText(pa_context *context)
{
    return QString::fromUtf8(pa_strerror(pa_context_errno(context)));
}

void dropOperation(pa_operation *operation)
{
    if (operation)
        pa_operation_unref(operation);
}

} // namespace

PulseAudioSink::PulseAudioSink(int connectTimeoutMs)
    : m_connectTimeoutMs(connectTimeoutMs)
{}

PulseAudioSink::~PulseAudioSink()
{
    close();
}

bool PulseAudioSink::open(AudioRenderSource *source, QString *error)
{
    close();
    m_source = source;
    m_mainloop = pa_threaded_mainloop_new();
    if (!m_mainloop) {
        if (error)
            *error = QStringLiteral("PulseAudio: cannot create a main loop");
        return false;
    }
    pa_threaded_mainloop_set_name(m_mainloop, "quillvox-audio");
    if (pa_threaded_mainloop_start(m_mainloop) < 0) {
        pa_threaded_mainloop_free(m_mainloop);
        m_mainloop = nullptr;
        if (error)
            *error = QStringLiteral("PulseAudio: cannot start the main loop thread");
        return false;
    }
    QString reason;
    bool ok = false;
    {
        LoopLock lock(m_mainloop);
        ok = connect(&reason);
    }
    if (!ok) {
        close();
        if (error)
            *error = QStringLiteral("PulseAudio: %1").arg(reason);
        return false;
    }
    m_open = true;
    return true;
}

// Runs with the main loop locked. Every wait ends on a state change or on the timer, never open-ended.
bool PulseAudioSink::connect(QString *error)
{
    pa_proplist *props = pa_proplist_new();
    pa_proplist_sets(props, PA_PROP_APPLICATION_NAME, "Quillvox");
    pa_proplist_sets(props, PA_PROP_APPLICATION_ID, "quillvox");
    pa_proplist_sets(props, PA_PROP_APPLICATION_ICON_NAME, "quillvox");
    m_context = pa_context_new_with_proplist(pa_threaded_mainloop_get_api(m_mainloop), "Quillvox", props);
    pa_proplist_free(props);
    if (!m_context) {
        *error = QStringLiteral("cannot create a context");
        return false;
    }
    pa_context_set_state_callback(m_context, &PulseAudioSink::onContextState, this);
    // No autospawn: starting a daemon from here could block, and session servers are socket-activated.
    if (pa_context_connect(m_context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        *error = errorText(m_context);
        return false;
    }

    m_timedOut = false;
    pa_time_event *timer = pa_context_rttime_new(
        m_context, pa_rtclock_now() + static_cast<pa_usec_t>(m_connectTimeoutMs) * PA_USEC_PER_MSEC,
        &PulseAudioSink::onTimeout, this);
    const auto freeTimer = [&] {
        if (timer)
            pa_threaded_mainloop_get_api(m_mainloop)->time_free(timer);
        timer = nullptr;
    };

    for (;;) {
        const pa_context_state_t state = pa_context_get_state(m_context);
        if (state == PA_CONTEXT_READY)
            break;
        if (!PA_CONTEXT_IS_GOOD(state)) {
            *error = errorText(m_context);
            freeTimer();
            return false;
        }
        if (m_timedOut) {
            *error = QStringLiteral("the sound server did not answer within %1 ms").arg(m_connectTimeoutMs);
            freeTimer();
            return false;
        }
        pa_threaded_mainloop_wait(m_mainloop);
    }

    const pa_sample_spec sampleFormat{PA_SAMPLE_FLOAT32NE, kSampleRateHz, 1};
    pa_channel_map map;
    pa_channel_map_init_mono(&map);
    pa_proplist *streamProps = pa_proplist_new();
    pa_proplist_sets(streamProps, PA_PROP_MEDIA_ROLE, "a11y");
    pa_proplist_sets(streamProps, PA_PROP_MEDIA_NAME, "Narration");
    m_stream = pa_stream_new_with_proplist(m_context, "Narration", &sampleFormat, &map, streamProps);
    pa_proplist_free(streamProps);
    if (!m_stream) {
        *error = errorText(m_context);
        freeTimer();
        return false;
    }
    pa_stream_set_state_callback(m_stream, &PulseAudioSink::onStreamState, this);
    pa_stream_set_write_callback(m_stream, &PulseAudioSink::onWrite, this);

    // The server's default buffer is about two seconds; ask for a short one and let it fit the device.
    pa_buffer_attr attr;
    attr.maxlength = static_cast<uint32_t>(-1);
    attr.tlength =
        static_cast<uint32_t>(pa_usec_to_bytes(kTargetLatencyMs * PA_USEC_PER_MSEC, &sampleFormat));
    attr.prebuf = static_cast<uint32_t>(-1);
    attr.minreq = static_cast<uint32_t>(pa_usec_to_bytes(kRequestMs * PA_USEC_PER_MSEC, &sampleFormat));
    attr.fragsize = static_cast<uint32_t>(-1);
    const auto flags = static_cast<pa_stream_flags_t>(PA_STREAM_START_CORKED | PA_STREAM_ADJUST_LATENCY |
                                                      PA_STREAM_INTERPOLATE_TIMING);
    if (pa_stream_connect_playback(m_stream, nullptr, &attr, flags, nullptr, nullptr) < 0) {
        *error = errorText(m_context);
        freeTimer();
        return false;
    }
    for (;;) {
        const pa_stream_state_t state = pa_stream_get_state(m_stream);
        if (state == PA_STREAM_READY)
            break;
        if (!PA_STREAM_IS_GOOD(state)) {
            *error = errorText(m_context);
            freeTimer();
            return false;
        }
        if (m_timedOut) {
            *error =
                QStringLiteral("the sound server did not open a stream within %1 ms").arg(m_connectTimeoutMs);
            freeTimer();
            return false;
        }
        pa_threaded_mainloop_wait(m_mainloop);
    }
    freeTimer();
    m_established = true;

    const pa_buffer_attr *granted = pa_stream_get_buffer_attr(m_stream);
    qCInfo(lcAudio).nospace() << "PulseAudio stream open on " << pa_context_get_server(m_context)
                              << ", buffer "
                              << (granted ? pa_bytes_to_usec(granted->tlength, &sampleFormat) / 1000 : 0)
                              << " ms";
    return true;
}

bool PulseAudioSink::isOpen() const
{
    return m_open;
}

void PulseAudioSink::setActive(bool active)
{
    if (!m_mainloop)
        return;
    LoopLock lock(m_mainloop);
    if (m_stream && m_established && !m_lost) {
        dropOperation(pa_stream_cork(m_stream, active ? 0 : 1, nullptr, nullptr));
        if (active)
            requestTiming(m_stream, true);
    }
}

void PulseAudioSink::discardPending()
{
    if (!m_mainloop)
        return;
    LoopLock lock(m_mainloop);
    if (m_stream && m_established && !m_lost) {
        dropOperation(pa_stream_flush(m_stream, nullptr, nullptr));
        requestTiming(m_stream, true);
    }
}

void PulseAudioSink::close()
{
    if (!m_mainloop)
        return;
    {
        LoopLock lock(m_mainloop);
        m_closing = true;
        if (m_stream) {
            pa_stream_set_write_callback(m_stream, nullptr, nullptr);
            pa_stream_set_state_callback(m_stream, nullptr, nullptr);
            if (PA_STREAM_IS_GOOD(pa_stream_get_state(m_stream)))
                pa_stream_disconnect(m_stream);
            pa_stream_unref(m_stream);
            m_stream = nullptr;
        }
        if (m_context) {
            pa_context_set_state_callback(m_context, nullptr, nullptr);
            pa_context_disconnect(m_context);
            pa_context_unref(m_context);
            m_context = nullptr;
        }
    }
    pa_threaded_mainloop_stop(m_mainloop);
    pa_threaded_mainloop_free(m_mainloop);
    m_mainloop = nullptr;
    m_source = nullptr;
    m_open = false;
    m_established = false;
    m_closing = false;
    m_lost = false;
    m_lastUnheardFrames = 0;
    m_timingPending = false;
    m_nextTimingUsec = 0;
    m_timingIntervalUsec = 0;
}

void PulseAudioSink::onContextState(pa_context *context, void *userdata)
{
    auto *self = static_cast<PulseAudioSink *>(userdata);
    pa_threaded_mainloop_signal(self->m_mainloop, 0);
    if (self->m_established && !PA_CONTEXT_IS_GOOD(pa_context_get_state(context)))
        self->lost(errorText(context));
}

void PulseAudioSink::onStreamState(pa_stream *stream, void *userdata)
{
    auto *self = static_cast<PulseAudioSink *>(userdata);
    pa_threaded_mainloop_signal(self->m_mainloop, 0);
    if (self->m_established && !PA_STREAM_IS_GOOD(pa_stream_get_state(stream)))
        self->lost(errorText(pa_stream_get_context(stream)));
}

void PulseAudioSink::onTimeout(pa_mainloop_api *, pa_time_event *, const struct timeval *, void *userdata)
{
    auto *self = static_cast<PulseAudioSink *>(userdata);
    self->m_timedOut = true;
    pa_threaded_mainloop_signal(self->m_mainloop, 0);
}

void PulseAudioSink::onTimingUpdated(pa_stream *, int, void *userdata)
{
    static_cast<PulseAudioSink *>(userdata)->m_timingPending = false;
}

void PulseAudioSink::requestTiming(pa_stream *stream, bool restart)
{
    const pa_usec_t now = pa_rtclock_now();
    if (restart) {
        m_timingIntervalUsec = 0;
        m_nextTimingUsec = now;
    }
    if (m_timingPending || now < m_nextTimingUsec)
        return;
    pa_operation *operation = pa_stream_update_timing_info(stream, &PulseAudioSink::onTimingUpdated, this);
    if (!operation)
        return;
    pa_operation_unref(operation);
    m_timingPending = true;
    m_timingIntervalUsec = std::clamp<std::uint64_t>(2 * m_timingIntervalUsec, 10 * PA_USEC_PER_MSEC,
                                                     kMaxTimingIntervalMs * PA_USEC_PER_MSEC);
    m_nextTimingUsec = now + m_timingIntervalUsec;
}

void PulseAudioSink::onWrite(pa_stream *stream, std::size_t bytes, void *userdata)
{
    auto *self = static_cast<PulseAudioSink *>(userdata);
    self->requestTiming(stream, false);
    while (bytes >= sizeof(float)) {
        void *data = nullptr;
        std::size_t chunk = bytes;
        if (pa_stream_begin_write(stream, &data, &chunk) < 0 || !data)
            return;
        chunk -= chunk % sizeof(float);
        if (chunk == 0) {
            pa_stream_cancel_write(stream);
            return;
        }
        self->m_source->render(static_cast<float *>(data), chunk / sizeof(float),
                               self->unheardFrames(stream));
        if (pa_stream_write(stream, data, chunk, nullptr, 0, PA_SEEK_RELATIVE) < 0)
            return;
        bytes -= std::min(bytes, chunk);
    }
}

// What the server holds of the audio written so far, not yet heard; before the first timing update
// (or right after a flush) the last known value stands.
std::int64_t PulseAudioSink::unheardFrames(pa_stream *stream)
{
    pa_usec_t latency = 0;
    int negative = 0;
    if (pa_stream_get_latency(stream, &latency, &negative) == 0)
        m_lastUnheardFrames =
            negative ? 0 : static_cast<std::int64_t>(latency * kSampleRateHz / PA_USEC_PER_SEC);
    return m_lastUnheardFrames;
}

void PulseAudioSink::lost(const QString &reason)
{
    if (m_closing || m_lost)
        return;
    m_lost = true;
    m_open = false;
    reportFailure(QStringLiteral("PulseAudio: %1").arg(reason));
}
