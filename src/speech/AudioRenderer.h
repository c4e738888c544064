// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/AudioSink.h"
#include "speech/AudioBufferQueue.h"
#include "speech/RenderHistory.h"
#include "speech/SpscRing.h"

#include <SoundTouch.h>

#include <array>
#include <atomic>
#include <mutex>

class ThreadWakeup;

// The render thread's side of the engine: takes the queued buffers at the current rate (straight
// through at 1x, through SoundTouch otherwise, so that the pitch stays), tracks which narration frame
// the device is playing, measures levels, and reports heard buffers. Never blocks and, once built,
// never allocates; what it reports waits in lock-free rings for the GUI thread, which is woken for
// every level but for a completion only when nothing published is left to hear.
class AudioRenderer final : public AudioRenderSource
{
public:
    struct Completion
    {
        quint64 token = 0;
        quint32 generation = 0;
    };

    struct Level
    {
        float level = 0;
        double timestampSeconds = 0;
        quint32 generation = 0;
    };

    AudioRenderer(AudioBufferQueue &queue, ThreadWakeup &wakeup);

    void render(float *out, std::size_t frames, std::int64_t deviceDelayFrames) override;

    // --- GUI thread
    // Drops everything queued or inside the stretcher and restarts the narration clock; what was reported
    // before carries an older generation.
    void reset(quint32 generation);
    void setPlaying(bool playing) { m_playing.store(playing, std::memory_order_release); }
    void setRate(float rate) { m_rate.store(rate, std::memory_order_relaxed); }
    void setTapEnabled(bool enabled) { m_tapEnabled.store(enabled, std::memory_order_relaxed); }
    bool popCompletion(Completion &completion) { return m_completions.pop(completion); }
    bool popLevel(Level &level) { return m_levels.pop(level); }
    // Narration frames heard since the last reset, or -1 when nothing has been rendered since.
    qint64 sampleTime() const { return m_sampleTime.load(std::memory_order_acquire); }
    // Nothing renders any more (the device is gone): keeps telling how far playback had got.
    void holdSampleTime(qint64 frames) { m_sampleTime.store(frames, std::memory_order_release); }

private:
    static constexpr std::size_t kFeedFrames = 512;
    static constexpr std::size_t kCompletionRing = 4096;
    static constexpr std::size_t kCompletionsWakeAt = kCompletionRing / 2;

    void applyControls();
    std::size_t produce(float *out, std::size_t frames);
    std::size_t produceDirect(float *out, std::size_t frames);
    std::size_t feedStretcher();
    // Converts up to `frames` queued frames into `out`; how many there were.
    std::size_t readQueued(float *out, std::size_t frames);
    ScheduledBuffer *nextFeedBuffer();
    void startDrain();
    void finishDrain();
    void updateStretchedPosition();
    // `heardSeconds`: when the first of `samples` will be heard, on the steady clock.
    void measure(const float *samples, std::size_t frames, double heardSeconds);
    void completeHeardBuffers();

    AudioBufferQueue &m_queue;
    ThreadWakeup &m_wakeup;

    // Shared with the GUI thread.
    std::mutex m_mutex; // held by render(); the GUI thread takes it only to reset the render state
    std::atomic<bool> m_playing{false};
    std::atomic<float> m_rate{1.0f};
    std::atomic<bool> m_tapEnabled{false};
    std::atomic<qint64> m_sampleTime{-1};
    SpscRing<Completion, kCompletionRing> m_completions;
    SpscRing<Level, 256> m_levels;

    // Touched under m_mutex only (by render(), or by the GUI thread holding it).
    struct State
    {
        enum class Mode { Direct, Stretch };
        Mode mode = Mode::Direct;
        float appliedRate = 1.0f;
        BlockCursor feedCursor;
        BlockCursor doneCursor;
        quint64 feedIndex = 0;
        quint64 doneIndex = 0;
        qint64 feedOffset = 0;
        qint64 consumed = 0;     // narration frames taken from the queue
        qint64 outNarration = 0; // narration frame at the end of what has been rendered
        qint64 heard = 0;
        bool positionValid = false;
        bool stretcherClean = true; // nothing fed since the last clear()
        bool lastFedSilent = false;
        bool draining = false;
        qint64 drainRemaining = 0;
        qint64 drainZeros = 0;
        qint64 stallFrames = 0;
        bool tapOn = false;
        double tapSum = 0;
        int tapCount = 0;
        quint32 generation = 0;
        bool notify = false;
        RenderHistory history;
        std::array<float, kFeedFrames> scratch{};
    } r;
    soundtouch::SoundTouch m_stretcher;
    static constexpr std::array<float, kFeedFrames> kZeros{};
    // Render thread only, and never reset: device frames rendered since the renderer was made.
    qint64 m_deviceFrames = 0;
};
