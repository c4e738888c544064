// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/AudioEngine.h"

#include "core/Logging.h"
#include "platform/AudioSink.h"

#include <QMetaObject>
#include <QSocketNotifier>
#include <QtEndian>

#include <SoundTouch.h>

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <limits>
#include <mutex>
#include <type_traits>

static_assert(std::is_same_v<soundtouch::SAMPLETYPE, float>,
              "the engine feeds SoundTouch float samples (Debian builds it with SOUNDTOUCH_FLOAT_SAMPLES)");

namespace {

// Render work is cut into blocks of this size so that SoundTouch's internal buffers stay within what the
// warm-up below has already grown them to, whatever the device asks for at once.
constexpr std::size_t kRenderBlockFrames = 512;
constexpr std::size_t kFeedFrames = 512;
constexpr std::size_t kBuffersPerBlock = 512;
constexpr std::size_t kHistorySpans = 1024;
constexpr std::size_t kCompletionSlots = 4096;
constexpr std::size_t kLevelSlots = 256;
constexpr qint64 kStallFlushFrames = AudioEngine::kSampleRateHz / 10;
// Bounds the zeros pushed through the stretcher to bring out a tail; far more than it ever needs.
constexpr qint64 kMaxDrainZeroFrames = AudioEngine::kSampleRateHz;
constexpr float kSampleScale = 1.0f / 32768.0f;
constexpr quint64 kNoMark = std::numeric_limits<quint64>::max();

// Single producer (the render side), single consumer (the GUI thread); never allocates.
template<typename T, std::size_t N> class SpscRing
{
    static_assert((N & (N - 1)) == 0, "N must be a power of two");

public:
    bool push(const T &item)
    {
        const std::size_t tail = m_tail.load(std::memory_order_relaxed);
        if (tail - m_head.load(std::memory_order_acquire) == N)
            return false;
        m_items[tail & (N - 1)] = item;
        m_tail.store(tail + 1, std::memory_order_release);
        return true;
    }

    bool pop(T &item)
    {
        const std::size_t head = m_head.load(std::memory_order_relaxed);
        if (head == m_tail.load(std::memory_order_acquire))
            return false;
        item = m_items[head & (N - 1)];
        m_head.store(head + 1, std::memory_order_release);
        return true;
    }

private:
    std::array<T, N> m_items{};
    alignas(64) std::atomic<std::size_t> m_head{0};
    alignas(64) std::atomic<std::size_t> m_tail{0};
};

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

struct ScheduledBuffer
{
    QByteArray storage;            // keeps the samples alive; only the GUI thread touches it
    const char *samples = nullptr; // little-endian 16-bit
    qint64 frames = 0;
    qint64 endFrame = 0; // narration frame just after this buffer, counted from the last stop()
    quint64 token = 0;
};

// Buffers live in a list of fixed blocks: appending never moves an entry the render side may be
// reading, and a burst of thousands of buffers costs one small allocation per block.
struct BufferBlock
{
    explicit BufferBlock(quint64 first)
        : firstIndex(first)
    {}
    const quint64 firstIndex;
    std::array<ScheduledBuffer, kBuffersPerBlock> buffers;
    std::atomic<BufferBlock *> next{nullptr};
};

// A reader's place in the block list. Indexes passed in must already be published, so that every
// block on the way exists.
struct BlockCursor
{
    BufferBlock *block = nullptr;

    ScheduledBuffer &at(quint64 index)
    {
        while (index >= block->firstIndex + kBuffersPerBlock)
            block = block->next.load(std::memory_order_acquire);
        return block->buffers[index - block->firstIndex];
    }
};

// Which narration frames went to which device frames, for the audio the device still holds: the heard
// position is found by looking up the device frame being played now.
class RenderHistory
{
public:
    struct Span
    {
        qint64 deviceStart;
        qint64 deviceEnd;
        qint64 narrationStart;
        qint64 narrationEnd;
    };

    void clear() { m_count = 0; }

    void push(const Span &span)
    {
        if (span.deviceEnd <= span.deviceStart)
            return;
        if (m_count > 0) {
            Span &last = m_spans[(m_next + kHistorySpans - 1) % kHistorySpans];
            const bool bothSilent =
                last.narrationStart == last.narrationEnd && span.narrationStart == span.narrationEnd;
            if (bothSilent && last.deviceEnd == span.deviceStart &&
                last.narrationEnd == span.narrationStart) {
                last.deviceEnd = span.deviceEnd;
                return;
            }
        }
        m_spans[m_next] = span;
        m_next = (m_next + 1) % kHistorySpans;
        m_count = std::min(m_count + 1, kHistorySpans);
    }

    std::optional<qint64> narrationAt(qint64 deviceFrame) const
    {
        if (m_count == 0)
            return std::nullopt;
        const Span *oldest = nullptr;
        for (std::size_t i = 1; i <= m_count; ++i) {
            const Span &s = m_spans[(m_next + kHistorySpans - i) % kHistorySpans];
            if (i == 1 && deviceFrame >= s.deviceEnd)
                return s.narrationEnd;
            if (deviceFrame >= s.deviceStart)
                return s.narrationStart + (deviceFrame - s.deviceStart) *
                                              (s.narrationEnd - s.narrationStart) /
                                              (s.deviceEnd - s.deviceStart);
            oldest = &s;
        }
        return oldest->narrationStart;
    }

private:
    std::array<Span, kHistorySpans> m_spans{};
    std::size_t m_next = 0;
    std::size_t m_count = 0;
};

inline void convertSamples(const char *bytes, float *out, qint64 frames)
{
    for (qint64 i = 0; i < frames; ++i)
        out[i] = static_cast<float>(qFromLittleEndian<qint16>(bytes + 2 * i)) * kSampleScale;
}

} // namespace

class AudioEngine::Private final : public AudioRenderSource
{
public:
    Private(AudioEngine *owner, std::unique_ptr<AudioSink> audioSink);
    ~Private() override;

    void render(float *out, std::size_t frames, std::int64_t deviceDelayFrames) override;

    // GUI thread.
    void append(const QByteArray &storage, const char *samples, qint64 frames, quint64 token);
    void resetQueue();
    void reclaim();
    bool ensureRunning();
    void deliver();
    void reportFailure(quint64 serial, const QString &reason);
    void handleFailure(quint64 serial, const QString &reason);

    AudioEngine *const q;
    std::unique_ptr<AudioSink> sink;
    bool running = false;
    bool playingGui = false;
    bool silenceAhead = false; // prepare() woke the device: what it holds now is silence
    float rateGui = 1.0f;
    bool tapGui = false;
    quint32 generation = 0;
    quint64 openSerial = 0;
    qint64 nextEndFrame = 0;
    BufferBlock *head = nullptr;
    BufferBlock *tail = nullptr;
    BlockCursor releaseCursor;
    quint64 releaseIndex = 0;
    int wakeFd = -1;
    std::unique_ptr<QSocketNotifier> notifier;

    // Shared with the render side.
    std::mutex renderMutex; // held by render(); the GUI thread takes it only to reset the render state
    std::atomic<quint64> writeIndex{0};
    std::atomic<quint64> endMark{kNoMark};
    std::atomic<bool> playing{false};
    std::atomic<float> rate{1.0f};
    std::atomic<bool> tapEnabled{false};
    std::atomic<qint64> sampleTime{-1};
    std::atomic<quint64> fedIndex{0};
    std::atomic<quint64> cursorBlockFirst{0};
    std::atomic<bool> wakePending{false};
    SpscRing<Completion, kCompletionSlots> completions;
    SpscRing<Level, kLevelSlots> levels;
    std::mutex failureMutex;
    QString failureReason;
    quint64 failureSerial = 0;
    std::atomic<bool> failurePending{false};

    // Render side: touched under renderMutex only (by render(), or by the GUI thread holding it).
    struct RenderState
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
    soundtouch::SoundTouch stretcher;
    static constexpr std::array<float, kFeedFrames> kZeros{};
    // Render thread only, and never reset: device frames rendered since the engine was made.
    qint64 deviceFrames = 0;

private:
    void applyControls();
    std::size_t produce(float *out, std::size_t frames);
    std::size_t produceDirect(float *out, std::size_t frames);
    std::size_t feedStretcher();
    ScheduledBuffer *nextFeedBuffer();
    void startDrain();
    void finishDrain();
    void updateStretchedPosition();
    void measure(const float *samples, std::size_t frames);
    void completeHeardBuffers();
    void wake();
};

AudioEngine::Private::Private(AudioEngine *owner, std::unique_ptr<AudioSink> audioSink)
    : q(owner)
    , sink(std::move(audioSink))
{
    head = tail = new BufferBlock(0);
    releaseCursor.block = head;
    r.feedCursor.block = r.doneCursor.block = head;

    stretcher.setSampleRate(kSampleRateHz);
    stretcher.setChannels(1);
    // Only the tempo changes, never the sample rate, so the anti-alias filter would only cost time.
    stretcher.setSetting(SETTING_USE_AA_FILTER, 0);
    // Grow SoundTouch's buffers to the largest the render path asks of them (the extremes of the rate
    // range, fed and drained the way produce() does), so that rendering later allocates nothing.
    for (float warmRate : {kMinRate, kMaxRate, 1.0f}) {
        stretcher.setTempo(warmRate);
        std::array<float, kRenderBlockFrames> drained{};
        for (int i = 0; i < 40; ++i) {
            while (stretcher.numSamples() < kRenderBlockFrames)
                stretcher.putSamples(kZeros.data(), kFeedFrames);
            stretcher.receiveSamples(drained.data(), kRenderBlockFrames);
        }
        stretcher.clear();
    }
    stretcher.setTempo(1.0);

    wakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wakeFd >= 0) {
        notifier = std::make_unique<QSocketNotifier>(wakeFd, QSocketNotifier::Read);
        QObject::connect(notifier.get(), &QSocketNotifier::activated, q, [this] { deliver(); });
    } else {
        qCWarning(lcAudio) << "eventfd failed:" << std::strerror(errno)
                           << "- completions arrive only through deliverPending()";
    }
}

AudioEngine::Private::~Private()
{
    notifier.reset();
    if (wakeFd >= 0)
        ::close(wakeFd);
    while (head) {
        BufferBlock *next = head->next.load(std::memory_order_relaxed);
        delete head;
        head = next;
    }
}

// --- render side ------------------------------------------------------------------------------------

void AudioEngine::Private::render(float *out, std::size_t frames, std::int64_t deviceDelayFrames)
{
    const qint64 deviceStart = deviceFrames;
    deviceFrames += static_cast<qint64>(frames);
    std::unique_lock lock(renderMutex, std::try_to_lock);
    if (!lock.owns_lock()) {
        // Only stop() or a lost device holds it, and both drop what was playing.
        std::fill_n(out, frames, 0.0f);
        return;
    }
    applyControls();
    const bool isPlaying = playing.load(std::memory_order_acquire);
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
            measure(block, n);
        device += static_cast<qint64>(n);
        done += n;
    }
    if (isPlaying)
        r.positionValid = true;
    if (r.positionValid) {
        if (const std::optional<qint64> at = r.history.narrationAt(deviceStart - deviceDelayFrames))
            r.heard = std::clamp(*at, r.heard, r.consumed);
        sampleTime.store(r.heard, std::memory_order_release);
        completeHeardBuffers();
    }
    fedIndex.store(r.feedIndex, std::memory_order_release);
    cursorBlockFirst.store(std::min(r.feedCursor.block->firstIndex, r.doneCursor.block->firstIndex),
                           std::memory_order_release);
    if (r.notify) {
        r.notify = false;
        wake();
    }
}

void AudioEngine::Private::applyControls()
{
    const bool tap = tapEnabled.load(std::memory_order_relaxed);
    if (tap != r.tapOn) {
        r.tapOn = tap;
        r.tapSum = 0;
        r.tapCount = 0;
    }
    const float target = rate.load(std::memory_order_relaxed);
    // A tail being drained comes out at the tempo it was measured for.
    if (target == r.appliedRate || r.draining)
        return;
    r.appliedRate = target;
    stretcher.setTempo(target);
    // In direct mode the stretcher is empty, and its first sequence starts exactly where direct output
    // stopped: the switch is seamless. The way back has to wait until the stretcher is empty again (a
    // stop or a drain), or the audio inside it would be cut off.
    if (target != 1.0f)
        r.mode = RenderState::Mode::Stretch;
    else if (r.stretcherClean)
        r.mode = RenderState::Mode::Direct;
}

std::size_t AudioEngine::Private::produce(float *out, std::size_t frames)
{
    std::size_t got = 0;
    while (got < frames) {
        if (r.mode == RenderState::Mode::Direct)
            return got + produceDirect(out + got, frames - got);
        if (r.draining) {
            const auto want = static_cast<std::size_t>(
                std::min<qint64>(static_cast<qint64>(frames - got), r.drainRemaining));
            if (stretcher.numSamples() < want && r.drainZeros < kMaxDrainZeroFrames) {
                stretcher.putSamples(kZeros.data(), kFeedFrames);
                r.drainZeros += static_cast<qint64>(kFeedFrames);
                continue;
            }
            const std::size_t taken = stretcher.receiveSamples(out + got, static_cast<uint>(want));
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
        if (stretcher.numSamples() > 0) {
            got += stretcher.receiveSamples(out + got, static_cast<uint>(frames - got));
            updateStretchedPosition();
            continue;
        }
        if (feedStretcher() > 0)
            continue;
        const bool endOfInput = endMark.load(std::memory_order_acquire) == r.feedIndex;
        if (r.consumed > r.outNarration && (endOfInput || r.stallFrames >= kStallFlushFrames)) {
            startDrain();
            continue;
        }
        break;
    }
    return got;
}

std::size_t AudioEngine::Private::produceDirect(float *out, std::size_t frames)
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
    r.consumed += static_cast<qint64>(got);
    r.outNarration = r.consumed;
    if (got > 0)
        r.stallFrames = 0;
    return got;
}

std::size_t AudioEngine::Private::feedStretcher()
{
    std::size_t fed = 0;
    while (fed < kFeedFrames) {
        ScheduledBuffer *buffer = nextFeedBuffer();
        if (!buffer)
            break;
        const qint64 take = std::min(static_cast<qint64>(kFeedFrames - fed), buffer->frames - r.feedOffset);
        convertSamples(buffer->samples + 2 * r.feedOffset, r.scratch.data() + fed, take);
        r.feedOffset += take;
        fed += static_cast<std::size_t>(take);
    }
    if (fed > 0) {
        r.stretcherClean = false;
        stretcher.putSamples(r.scratch.data(), static_cast<uint>(fed));
        r.consumed += static_cast<qint64>(fed);
        r.stallFrames = 0;
    }
    return fed;
}

ScheduledBuffer *AudioEngine::Private::nextFeedBuffer()
{
    const quint64 written = writeIndex.load(std::memory_order_acquire);
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
void AudioEngine::Private::startDrain()
{
    r.drainRemaining = std::llround(static_cast<double>(r.consumed - r.outNarration) / r.appliedRate);
    r.drainZeros = 0;
    if (r.drainRemaining > 0)
        r.draining = true;
    else
        finishDrain();
}

void AudioEngine::Private::finishDrain()
{
    stretcher.clear();
    r.stretcherClean = true;
    r.draining = false;
    r.drainRemaining = 0;
    r.outNarration = r.consumed;
    r.stallFrames = 0;
    if (r.appliedRate == 1.0f)
        r.mode = RenderState::Mode::Direct;
}

void AudioEngine::Private::updateStretchedPosition()
{
    // Input waiting in the stretcher counts one narration frame each; output not yet taken stands for
    // `rate` narration frames each. A processing step moves frames from the first to the second without
    // changing the sum, so the estimate does not jump with SoundTouch's batches.
    const double inside = static_cast<double>(stretcher.numUnprocessedSamples()) +
                          static_cast<double>(stretcher.numSamples()) * r.appliedRate;
    const qint64 position = r.consumed - std::llround(inside);
    r.outNarration = std::clamp(position, r.outNarration, r.consumed);
}

void AudioEngine::Private::measure(const float *samples, std::size_t frames)
{
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
            if (levels.push({level, AudioEngine::steadySeconds(), r.generation}))
                r.notify = true;
            r.tapSum = 0;
            r.tapCount = 0;
        }
    }
}

void AudioEngine::Private::completeHeardBuffers()
{
    const quint64 written = writeIndex.load(std::memory_order_acquire);
    while (r.doneIndex < written) {
        const ScheduledBuffer &buffer = r.doneCursor.at(r.doneIndex);
        if (buffer.endFrame > r.heard)
            break;
        // A full ring only delays completions to a later render; none is lost.
        if (!completions.push({buffer.token, r.generation}))
            break;
        ++r.doneIndex;
        r.notify = true;
    }
}

void AudioEngine::Private::wake()
{
    if (wakePending.exchange(true, std::memory_order_acq_rel) || wakeFd < 0)
        return;
    const quint64 one = 1;
    [[maybe_unused]] const ssize_t written = ::write(wakeFd, &one, sizeof one);
}

// --- GUI thread ---------------------------------------------------------------------------------------

void AudioEngine::Private::append(const QByteArray &storage, const char *samples, qint64 frames,
                                  quint64 token)
{
    const quint64 index = writeIndex.load(std::memory_order_relaxed);
    if (index == tail->firstIndex + kBuffersPerBlock) {
        auto *block = new BufferBlock(index);
        tail->next.store(block, std::memory_order_release);
        tail = block;
        reclaim();
    }
    ScheduledBuffer &buffer = tail->buffers[index - tail->firstIndex];
    buffer.storage = storage;
    buffer.samples = samples;
    buffer.frames = frames;
    nextEndFrame += frames;
    buffer.endFrame = nextEndFrame;
    buffer.token = token;
    writeIndex.store(index + 1, std::memory_order_release);
}

void AudioEngine::Private::resetQueue()
{
    {
        std::lock_guard lock(renderMutex);
        ++generation;
        const quint64 written = writeIndex.load(std::memory_order_relaxed);
        endMark.store(kNoMark, std::memory_order_relaxed);
        r.generation = generation;
        r.feedCursor.block = r.doneCursor.block = tail;
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
        stretcher.clear();
        r.stretcherClean = true;
        r.mode = r.appliedRate == 1.0f ? RenderState::Mode::Direct : RenderState::Mode::Stretch;
        sampleTime.store(-1, std::memory_order_relaxed);
        fedIndex.store(written, std::memory_order_relaxed);
        cursorBlockFirst.store(tail->firstIndex, std::memory_order_relaxed);
    }
    nextEndFrame = 0;
    // The references are dropped here, outside the lock: the last one may free a whole narration.
    reclaim();
}

void AudioEngine::Private::reclaim()
{
    const quint64 fed = fedIndex.load(std::memory_order_acquire);
    for (; releaseIndex < fed; ++releaseIndex)
        releaseCursor.at(releaseIndex).storage = QByteArray();
    const quint64 keepFrom =
        std::min(cursorBlockFirst.load(std::memory_order_acquire), releaseCursor.block->firstIndex);
    while (head != tail && head->firstIndex + kBuffersPerBlock <= keepFrom) {
        BufferBlock *next = head->next.load(std::memory_order_relaxed);
        delete head;
        head = next;
    }
}

bool AudioEngine::Private::ensureRunning()
{
    if (running)
        return true;
    QString error;
    if (q->start(&error))
        return true;
    // Reported like a lost device, after the caller has returned.
    QMetaObject::invokeMethod(
        q, [engine = q, error] { Q_EMIT engine->failed(error); }, Qt::QueuedConnection);
    return false;
}

void AudioEngine::Private::deliver()
{
    // The eventfd is emptied before the flag is cleared, never after: a wake() between the two finds the
    // flag still set and writes nothing, and what it announced is popped below; a wake() after the clear
    // writes again. Reading after the clear could swallow such a write while the flag stays set, and no
    // wake() would ever write again.
    if (wakeFd >= 0) {
        quint64 count = 0;
        [[maybe_unused]] const ssize_t got = ::read(wakeFd, &count, sizeof count);
    }
    wakePending.exchange(false, std::memory_order_acq_rel);
    // Slots may call back into the engine (stop() inside a completion is common), so every item is
    // checked against the state after the previous emission.
    Completion completion;
    while (completions.pop(completion)) {
        if (completion.generation == generation)
            Q_EMIT q->bufferCompleted(completion.token);
    }
    Level level;
    while (levels.pop(level)) {
        if (level.generation == generation && tapGui)
            Q_EMIT q->levelMeasured(level.level, level.timestampSeconds);
    }
    if (failurePending.exchange(false, std::memory_order_acq_rel)) {
        QString reason;
        quint64 serial = 0;
        {
            std::lock_guard lock(failureMutex);
            reason = failureReason;
            serial = failureSerial;
        }
        handleFailure(serial, reason);
    }
    reclaim();
}

void AudioEngine::Private::reportFailure(quint64 serial, const QString &reason)
{
    {
        std::lock_guard lock(failureMutex);
        failureReason = reason;
        failureSerial = serial;
    }
    failurePending.store(true, std::memory_order_release);
    wake();
}

void AudioEngine::Private::handleFailure(quint64 serial, const QString &reason)
{
    if (serial != openSerial || !running)
        return;
    qCWarning(lcAudio) << "audio output lost:" << reason;
    playingGui = false;
    silenceAhead = false;
    playing.store(false, std::memory_order_release);
    const qint64 heard = sampleTime.load(std::memory_order_acquire);
    resetQueue();
    sink->close();
    running = false;
    // Nothing renders any more: keep telling how far playback got, so that it can go on from there.
    sampleTime.store(heard, std::memory_order_release);
    Q_EMIT q->failed(reason);
}

// --- AudioEngine ----------------------------------------------------------------------------------------

AudioEngine::AudioEngine(std::unique_ptr<AudioSink> sink, QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>(this, std::move(sink)))
{}

AudioEngine::~AudioEngine()
{
    if (d->sink) {
        d->sink->close();
        d->sink->setFailureHandler({});
    }
}

bool AudioEngine::start(QString *error)
{
    if (d->running)
        return true;
    if (!d->sink) {
        if (error)
            *error = QStringLiteral("No audio output");
        return false;
    }
    const quint64 serial = ++d->openSerial;
    Private *dd = d.get();
    d->sink->setFailureHandler([dd, serial](const QString &reason) { dd->reportFailure(serial, reason); });
    QString reason;
    if (!d->sink->open(d.get(), &reason)) {
        qCWarning(lcAudio) << "audio output unavailable:" << reason;
        if (error)
            *error = reason;
        return false;
    }
    d->running = true;
    if (d->playingGui)
        d->sink->setActive(true);
    return true;
}

bool AudioEngine::isRunning() const
{
    return d->running;
}

void AudioEngine::prepare()
{
    if (!d->ensureRunning())
        return;
    d->silenceAhead = d->silenceAhead || !d->playingGui;
    d->sink->setActive(true);
}

void AudioEngine::scheduleBuffer(const QByteArray &storage, qsizetype offset, qsizetype bytes, quint64 token)
{
    const qsizetype size = storage.size();
    if (offset < 0 || bytes < 0 || offset > size || bytes > size - offset) {
        // Still queued (clamped), so that its completion arrives and the caller's count stays right.
        qCWarning(lcAudio) << "scheduled range" << offset << "+" << bytes << "lies outside" << size
                           << "bytes";
        offset = std::clamp<qsizetype>(offset, 0, size);
        bytes = std::clamp<qsizetype>(bytes, 0, size - offset);
    }
    d->append(storage, storage.constData() + offset, bytes / 2, token);
}

void AudioEngine::markEndOfInput()
{
    d->endMark.store(d->writeIndex.load(std::memory_order_relaxed), std::memory_order_release);
}

void AudioEngine::play()
{
    if (!d->ensureRunning())
        return;
    // The silence rendered since prepare() would be heard before the first samples: drop it. (Before
    // playing starts: what render() makes after the drop must be the narration, never dropped itself.)
    if (std::exchange(d->silenceAhead, false))
        d->sink->discardPending();
    d->playingGui = true;
    d->playing.store(true, std::memory_order_release);
    d->sink->setActive(true);
}

void AudioEngine::pause()
{
    d->playingGui = false;
    d->playing.store(false, std::memory_order_release);
    if (d->running)
        d->sink->setActive(false);
}

void AudioEngine::stop()
{
    d->playingGui = false;
    d->silenceAhead = false;
    d->playing.store(false, std::memory_order_release);
    d->resetQueue();
    if (d->running) {
        d->sink->discardPending();
        d->sink->setActive(false);
    }
}

bool AudioEngine::isPlaying() const
{
    return d->playingGui;
}

std::optional<qint64> AudioEngine::sampleTime() const
{
    const qint64 frames = d->sampleTime.load(std::memory_order_acquire);
    if (frames < 0)
        return std::nullopt;
    return frames;
}

void AudioEngine::setRate(float rate)
{
    if (!std::isfinite(rate))
        rate = 1.0f;
    d->rateGui = std::clamp(rate, kMinRate, kMaxRate);
    d->rate.store(d->rateGui, std::memory_order_relaxed);
}

float AudioEngine::rate() const
{
    return d->rateGui;
}

void AudioEngine::setTapEnabled(bool enabled)
{
    d->tapGui = enabled;
    d->tapEnabled.store(enabled, std::memory_order_relaxed);
}

bool AudioEngine::isTapEnabled() const
{
    return d->tapGui;
}

void AudioEngine::deliverPending()
{
    d->deliver();
}

double AudioEngine::steadySeconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}
