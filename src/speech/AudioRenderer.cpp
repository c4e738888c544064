// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/AudioRenderer.h"

#include "speech/AudioEngine.h"
#include "speech/ThreadWakeup.h"

#include <QtEndian>

#include <algorithm>
#include <cmath>
#include <type_traits>

static_assert(std::is_same_v<soundtouch::SAMPLETYPE, float>,
              "the engine feeds SoundTouch float samples (Debian builds it with SOUNDTOUCH_FLOAT_SAMPLES)");

namespace {

// Render work is cut into blocks of this size so that SoundTouch's internal buffers stay within what the
// warm-up below has already grown them to, whatever the device asks for at once.
constexpr std::size_t kRenderBlockFrames = 512;
constexpr qint64 kStallFlushFrames = AudioEngine::kSampleRateHz / 10;
// Bounds the zeros pushed through the stretcher to bring out a tail; far more than it ever needs.
constexpr qint64 kMaxDrainZeroFrames = AudioEngine::kSampleRateHz;
constexpr float kSampleScale = 1.0f / 32768.0f;
// Below this a fed block counts as a pause in the speech (about -60 dBFS).
constexpr float kSilenceLevel = 1e-3f;

inline void convertSamples(const char *bytes, float *out, qint64 frames)
{
    for (qint64 i = 0; i < frames; ++i)
        out[i] = static_cast<float>(qFromLittleEndian<qint16>(bytes + 2 * i)) * kSampleScale;
}

} // namespace

AudioRenderer::AudioRenderer(AudioBufferQueue &queue, ThreadWakeup &wakeup)
    : m_queue(queue)
    , m_wakeup(wakeup)
{
    r.feedCursor.block = r.doneCursor.block = m_queue.headBlock();

    m_stretcher.setSampleRate(AudioEngine::kSampleRateHz);
    m_stretcher.setChannels(1);
    // Only the tempo changes, never the sample rate, so the anti-alias filter would only cost time.
    m_stretcher.setSetting(SETTING_USE_AA_FILTER, 0);
    // Grow SoundTouch's buffers to the largest the render path asks of them (the extremes of the rate
    // range, fed and drained the way produce() does), so that rendering later allocates nothing.
    for (float warmRate : {AudioEngine::kMinRate, AudioEngine::kMaxRate, 1.0f}) {
        m_stretcher.setTempo(warmRate);
        std::array<float, kRenderBlockFrames> drained{};
        for (int i = 0; i < 40; ++i) {
            while (m_stretcher.numSamples() < kRenderBlockFrames)
                m_stretcher.putSamples(kZeros.data(), kFeedFrames);
            m_stretcher.receiveSamples(drained.data(), kRenderBlockFrames);
        }
        m_stretcher.clear();
    }
    m_stretcher.setTempo(1.0);
}

void AudioRenderer::render(float *out, std::size_t frames, std::int64_t deviceDelayFrames)
{
    const qint64 deviceStart = m_deviceFrames;
    m_deviceFrames += static_cast<qint64>(frames);
    std::unique_lock lock(m_mutex, std::try_to_lock);
    if (!lock.owns_lock()) {
        // Only a reset holds it (a stop or a lost device), and both drop what was playing.
        std::fill_n(out, frames, 0.0f);
        return;
    }
    applyControls();
    const bool isPlaying = m_playing.load(std::memory_order_acquire);
    // A level is stamped with the time it will be heard: the device holds this much before the block.
    const double heardBase =
        r.tapOn ? AudioEngine::steadySeconds() + double(deviceDelayFrames) / AudioEngine::kSampleRateHz : 0;
    qint64 device = deviceStart;
    for (std::size_t done = 0; done < frames;) {
        const std::size_t n = std::min(frames - done, kRenderBlockFrames);
        float *block = out + done;
        const qint64 narrationBefore = r.outNarration;
        const std::size_t produced = isPlaying ? produce(block, n) : 0;
        std::fill(block + produced, block + n, 0.0f);
        if (isPlaying && produced < n)
            r.stallFrames += static_cast<qint64>(n - produced);
        const qint64 producedEnd = device + static_cast<qint64>(produced);
        r.history.push({device, producedEnd, narrationBefore, r.outNarration});
        r.history.push({producedEnd, device + static_cast<qint64>(n), r.outNarration, r.outNarration});
        if (r.tapOn)
            measure(block, n, heardBase + double(device - deviceStart) / AudioEngine::kSampleRateHz);
        device += static_cast<qint64>(n);
        done += n;
    }
    if (isPlaying)
        r.positionValid = true;
    if (r.positionValid) {
        if (const std::optional<qint64> at = r.history.narrationAt(deviceStart - deviceDelayFrames))
            r.heard = std::clamp(*at, r.heard, r.consumed);
        m_sampleTime.store(r.heard, std::memory_order_release);
        completeHeardBuffers();
    }
    m_queue.reportProgress(r.feedIndex,
                           std::min(r.feedCursor.block->firstIndex, r.doneCursor.block->firstIndex));
    if (r.notify) {
        r.notify = false;
        m_wakeup.wake();
    }
}

void AudioRenderer::reset(quint32 generation)
{
    std::lock_guard lock(m_mutex);
    const quint64 written = m_queue.published();
    r.generation = generation;
    r.feedCursor = r.doneCursor = m_queue.tailCursor();
    r.feedIndex = r.doneIndex = written;
    r.feedOffset = 0;
    r.consumed = r.outNarration = r.heard = 0;
    r.positionValid = false;
    r.draining = false;
    r.drainRemaining = 0;
    r.stallFrames = 0;
    r.tapSum = 0;
    r.tapCount = 0;
    r.history.clear();
    m_stretcher.clear();
    r.stretcherClean = true;
    r.mode = r.appliedRate == 1.0f ? State::Mode::Direct : State::Mode::Stretch;
    m_sampleTime.store(-1, std::memory_order_relaxed);
    m_queue.resetReaders();
}

void AudioRenderer::applyControls()
{
    const bool tap = m_tapEnabled.load(std::memory_order_relaxed);
    if (tap != r.tapOn) {
        r.tapOn = tap;
        r.tapSum = 0;
        r.tapCount = 0;
    }
    const float target = m_rate.load(std::memory_order_relaxed);
    // A tail being drained comes out at the tempo it was measured for.
    if (target == r.appliedRate || r.draining)
        return;
    r.appliedRate = target;
    m_stretcher.setTempo(target);
    // In direct mode the stretcher is empty, and its first sequence starts exactly where direct output
    // stopped: the switch is seamless. The way back waits until the stretcher is empty again (a stop, a
    // drain, or a pause in the speech: see produce()), or the audio inside it would be cut off.
    if (target != 1.0f)
        r.mode = State::Mode::Stretch;
    else if (r.stretcherClean)
        r.mode = State::Mode::Direct;
}

std::size_t AudioRenderer::produce(float *out, std::size_t frames)
{
    std::size_t got = 0;
    while (got < frames) {
        if (r.mode == State::Mode::Direct)
            return got + produceDirect(out + got, frames - got);
        if (r.draining) {
            const auto want = static_cast<std::size_t>(
                std::min<qint64>(static_cast<qint64>(frames - got), r.drainRemaining));
            if (m_stretcher.numSamples() < want && r.drainZeros < kMaxDrainZeroFrames) {
                m_stretcher.putSamples(kZeros.data(), kFeedFrames);
                r.drainZeros += static_cast<qint64>(kFeedFrames);
                continue;
            }
            const std::size_t taken = m_stretcher.receiveSamples(out + got, static_cast<uint>(want));
            std::fill(out + got + taken, out + got + want, 0.0f);
            got += want;
            r.drainRemaining -= static_cast<qint64>(want);
            r.outNarration =
                std::max(r.outNarration,
                         r.consumed - std::llround(static_cast<double>(r.drainRemaining) * r.appliedRate));
            if (r.drainRemaining == 0)
                finishDrain();
            continue;
        }
        if (m_stretcher.numSamples() > 0) {
            got += m_stretcher.receiveSamples(out + got, static_cast<uint>(frames - got));
            updateStretchedPosition();
            continue;
        }
        if (feedStretcher() > 0) {
            // Back at 1x: at the next pause, where the zeros that bring the tail out match what follows,
            // the stretcher empties and samples go straight through again.
            if (r.appliedRate == 1.0f && r.lastFedSilent)
                startDrain();
            continue;
        }
        const bool endOfInput = m_queue.endMark() == r.feedIndex;
        if (r.consumed > r.outNarration && (endOfInput || r.stallFrames >= kStallFlushFrames)) {
            startDrain();
            continue;
        }
        break;
    }
    return got;
}

std::size_t AudioRenderer::produceDirect(float *out, std::size_t frames)
{
    const std::size_t got = readQueued(out, frames);
    r.consumed += static_cast<qint64>(got);
    r.outNarration = r.consumed;
    if (got > 0)
        r.stallFrames = 0;
    return got;
}

std::size_t AudioRenderer::feedStretcher()
{
    const std::size_t fed = readQueued(r.scratch.data(), kFeedFrames);
    r.lastFedSilent = std::all_of(r.scratch.begin(), r.scratch.begin() + fed,
                                  [](float sample) { return std::abs(sample) < kSilenceLevel; });
    if (fed > 0) {
        r.stretcherClean = false;
        m_stretcher.putSamples(r.scratch.data(), static_cast<uint>(fed));
        r.consumed += static_cast<qint64>(fed);
        r.stallFrames = 0;
    }
    return fed;
}

std::size_t AudioRenderer::readQueued(float *out, std::size_t frames)
{
    std::size_t got = 0;
    while (got < frames) {
        ScheduledBuffer *buffer = nextFeedBuffer();
        if (!buffer)
            break;
        const qint64 take = std::min(static_cast<qint64>(frames - got), buffer->frames - r.feedOffset);
        convertSamples(buffer->samples + 2 * r.feedOffset, out + got, take);
        r.feedOffset += take;
        got += static_cast<std::size_t>(take);
    }
    return got;
}

ScheduledBuffer *AudioRenderer::nextFeedBuffer()
{
    const quint64 written = m_queue.published();
    while (r.feedIndex < written) {
        ScheduledBuffer &buffer = r.feedCursor.at(r.feedIndex);
        if (r.feedOffset < buffer.frames)
            return &buffer;
        ++r.feedIndex;
        r.feedOffset = 0;
    }
    return nullptr;
}

// SoundTouch::flush() allocates and pads by its own count; this pushes zeros from a static block instead
// and takes exactly the output that the narration still inside the stretcher stands for.
void AudioRenderer::startDrain()
{
    r.drainRemaining = std::llround(static_cast<double>(r.consumed - r.outNarration) / r.appliedRate);
    r.drainZeros = 0;
    if (r.drainRemaining > 0)
        r.draining = true;
    else
        finishDrain();
}

void AudioRenderer::finishDrain()
{
    m_stretcher.clear();
    r.stretcherClean = true;
    r.draining = false;
    r.drainRemaining = 0;
    r.outNarration = r.consumed;
    r.stallFrames = 0;
    if (r.appliedRate == 1.0f)
        r.mode = State::Mode::Direct;
}

void AudioRenderer::updateStretchedPosition()
{
    // Input waiting in the stretcher counts one narration frame each; output not yet taken stands for
    // `rate` narration frames each. A processing step moves frames from the first to the second without
    // changing the sum, so the estimate does not jump with SoundTouch's batches.
    const double inside = static_cast<double>(m_stretcher.numUnprocessedSamples()) +
                          static_cast<double>(m_stretcher.numSamples()) * r.appliedRate;
    const qint64 position = r.consumed - std::llround(inside);
    r.outNarration = std::clamp(position, r.outNarration, r.consumed);
}

void AudioRenderer::measure(const float *samples, std::size_t frames, double heardSeconds)
{
    constexpr int kTapFrames = AudioEngine::kTapFrames;
    for (std::size_t i = 0; i < frames;) {
        const std::size_t n = std::min(frames - i, static_cast<std::size_t>(kTapFrames - r.tapCount));
        // Four independent sums let the compiler vectorise; a window is short enough for float.
        std::array<float, 4> lanes{};
        std::size_t k = 0;
        for (; k + 4 <= n; k += 4) {
            for (std::size_t lane = 0; lane < 4; ++lane)
                lanes[lane] += samples[i + k + lane] * samples[i + k + lane];
        }
        double sum = double(lanes[0]) + lanes[1] + lanes[2] + lanes[3];
        for (; k < n; ++k)
            sum += static_cast<double>(samples[i + k]) * samples[i + k];
        r.tapSum += sum;
        r.tapCount += static_cast<int>(n);
        i += n;
        if (r.tapCount == kTapFrames) {
            const double rms = std::sqrt(r.tapSum / kTapFrames);
            const float level = std::min(1.0f, static_cast<float>(rms * 8.0));
            // Stamped with the middle of its window.
            const double at = heardSeconds + (double(i) - kTapFrames / 2.0) / AudioEngine::kSampleRateHz;
            if (m_levels.push({level, at, r.generation}))
                r.notify = true;
            r.tapSum = 0;
            r.tapCount = 0;
        }
    }
}

// The GUI thread is woken only for a completion that may end playback (nothing published is left
// unheard) or before the ring could fill; the others wait for its next progress tick, so that a steady
// narration costs no wake-up per buffer.
void AudioRenderer::completeHeardBuffers()
{
    const quint64 written = m_queue.published();
    bool completed = false;
    while (r.doneIndex < written) {
        const ScheduledBuffer &buffer = r.doneCursor.at(r.doneIndex);
        if (buffer.endFrame > r.heard)
            break;
        // A full ring only delays completions to a later render; none is lost.
        if (!m_completions.push({buffer.token, r.generation}))
            break;
        ++r.doneIndex;
        completed = true;
    }
    if (completed && (r.doneIndex == written || m_completions.size() >= kCompletionsWakeAt))
        r.notify = true;
}
