// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>

#include <memory>
#include <optional>

class AudioSink;

// Plays scheduled 16-bit mono 24 kHz buffers through a time-stretcher (rate changes keep the pitch)
// into an AudioSink, like a player node feeding a time-pitch unit. Lives on the GUI thread and holds the
// device; the sink's render thread runs AudioRenderer, which only reads the AudioBufferQueue, and
// completions and levels come back to the GUI thread as signals.
//
// The queue holds references to the scheduled storage, never copies: a QByteArray that is still being
// appended to while a slice of it is queued is deep-copied by Qt on every append, so schedule slices of
// arrays that no longer grow.
class AudioEngine : public QObject
{
    Q_OBJECT
public:
    static constexpr int kSampleRateHz = 24000;
    static constexpr int kTapFrames = 1024;
    static constexpr float kMinRate = 0.25f;
    static constexpr float kMaxRate = 4.0f;

    explicit AudioEngine(std::unique_ptr<AudioSink> sink, QObject *parent = nullptr);
    ~AudioEngine() override;

    // Connects the sink. After a failure, calling it again reconnects.
    bool start(QString *error = nullptr);
    bool isRunning() const;
    // Wakes the device ahead of the first samples (a request has started). The silence it plays meanwhile
    // is dropped at play(), so that the first samples are heard at once.
    void prepare();

    // Queues bytes [offset, offset + bytes) of `storage` (shared, not copied; an odd trailing byte is
    // ignored). `token` comes back in bufferCompleted() once the buffer's last frame has been heard: at
    // once when no buffer queued so far is left to hear, otherwise at the next deliverPending() (or any
    // wake-up of the engine's own), so that the caller's periodic work collects them without waking.
    void scheduleBuffer(const QByteArray &storage, qsizetype offset, qsizetype bytes, quint64 token);
    // No more buffers will follow for now: once the queue drains, the stretcher is flushed so that the
    // tail is heard. Scheduling again cancels the mark. (A queue that has run dry for 0.1 s while playing
    // is flushed as well, so that a stalled stream never keeps its last words back.)
    void markEndOfInput();

    void play();
    void pause();
    // Drops every queued buffer without completions, clears the stretcher and the device's pending audio,
    // and restarts the sample clock at 0.
    void stop();
    bool isPlaying() const;

    // Narration frames heard since the last stop() (what still sits in the stretcher and in the device
    // buffer is not counted), or nothing when nothing has been rendered since then.
    std::optional<qint64> sampleTime() const;

    // Clamped to [kMinRate, kMaxRate]; a change applies from the next render, mid-buffer.
    void setRate(float rate);
    float rate() const;

    // Levels (RMS of each 1,024 rendered frames, after the stretcher, so what is heard) are measured only
    // while the tap is on. Each is stamped with the std::chrono::steady_clock second at which the middle
    // of its window will be heard (the device buffers ahead), so it may lie in the future.
    void setTapEnabled(bool enabled);
    bool isTapEnabled() const;
    // The clock of level timestamps, for whoever compares them with "now".
    static double steadySeconds();

    // Emits now what the render side has reported so far (completions, levels, a lost device). The
    // event loop does this by itself for levels, a lost device and the completion that empties the
    // queue; the owner calls it on its own ticks for the rest.
    void deliverPending();

Q_SIGNALS:
    void bufferCompleted(quint64 token);
    void levelMeasured(float level, double timestampSeconds);
    // The device connection was lost (sound server gone); the engine is closed and its queue dropped, and
    // sampleTime() tells how far playback had got until the next stop(). start() (or play()) reconnects.
    void failed(const QString &reason);

private:
    class Private;
    std::unique_ptr<Private> d;
};
