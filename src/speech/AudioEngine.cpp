// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/AudioEngine.h"

#include "core/Logging.h"
#include "platform/AudioSink.h"
#include "speech/AudioBufferQueue.h"
#include "speech/AudioRenderer.h"
#include "speech/ThreadWakeup.h"

#include <QMetaObject>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <mutex>

// The GUI thread's side: the device connection, the controls handed to the renderer, and the delivery of
// what the render side reported as signals.
class AudioEngine::Private
{
public:
    Private(AudioEngine *owner, std::unique_ptr<AudioSink> audioSink);

    void resetQueue();
    bool ensureRunning();
    void deliver();
    void reportFailure(quint64 serial, const QString &reason);
    void handleFailure(quint64 serial, const QString &reason);

    AudioEngine *const q;
    bool running = false;
    bool playingGui = false;
    bool silenceAhead = false; // prepare() woke the device: what it holds now is silence
    float rateGui = 1.0f;
    bool tapGui = false;
    quint32 generation = 0;
    quint64 openSerial = 0;

    AudioBufferQueue queue;
    ThreadWakeup wakeup;
    AudioRenderer renderer;

    // Set from the sink's thread.
    std::mutex failureMutex;
    QString failureReason;
    quint64 failureSerial = 0;
    std::atomic<bool> failurePending{false};

    std::unique_ptr<AudioSink> sink;
};

AudioEngine::Private::Private(AudioEngine *owner, std::unique_ptr<AudioSink> audioSink)
    : q(owner)
    , wakeup(owner, [this] { deliver(); })
    , renderer(queue, wakeup)
    , sink(std::move(audioSink))
{}

void AudioEngine::Private::resetQueue()
{
    renderer.reset(++generation);
    queue.restartFrameCount();
    // The references are dropped here, outside the render lock: the last one may free a whole narration.
    queue.reclaim();
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
    wakeup.acknowledge();
    // Slots may call back into the engine (stop() inside a completion is common), so every item is
    // checked against the state after the previous emission.
    AudioRenderer::Completion completion;
    while (renderer.popCompletion(completion)) {
        if (completion.generation == generation)
            Q_EMIT q->bufferCompleted(completion.token);
    }
    AudioRenderer::Level level;
    while (renderer.popLevel(level)) {
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
    queue.reclaim();
}

void AudioEngine::Private::reportFailure(quint64 serial, const QString &reason)
{
    {
        std::lock_guard lock(failureMutex);
        failureReason = reason;
        failureSerial = serial;
    }
    failurePending.store(true, std::memory_order_release);
    wakeup.wake();
}

void AudioEngine::Private::handleFailure(quint64 serial, const QString &reason)
{
    if (serial != openSerial || !running)
        return;
    qCWarning(lcAudio) << "audio output lost:" << reason;
    playingGui = false;
    silenceAhead = false;
    renderer.setPlaying(false);
    const qint64 heard = renderer.sampleTime();
    resetQueue();
    sink->close();
    running = false;
    // Nothing renders any more: keep telling how far playback got, so that it can go on from there.
    renderer.holdSampleTime(heard);
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
    if (!d->sink->open(&d->renderer, &reason)) {
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
    d->queue.append(storage, storage.constData() + offset, bytes / 2, token);
}

void AudioEngine::markEndOfInput()
{
    d->queue.markEnd();
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
    d->renderer.setPlaying(true);
    d->sink->setActive(true);
}

void AudioEngine::pause()
{
    d->playingGui = false;
    d->renderer.setPlaying(false);
    if (d->running)
        d->sink->setActive(false);
}

void AudioEngine::stop()
{
    d->playingGui = false;
    d->silenceAhead = false;
    d->renderer.setPlaying(false);
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
    const qint64 frames = d->renderer.sampleTime();
    if (frames < 0)
        return std::nullopt;
    return frames;
}

void AudioEngine::setRate(float rate)
{
    if (!std::isfinite(rate))
        rate = 1.0f;
    d->rateGui = std::clamp(rate, kMinRate, kMaxRate);
    d->renderer.setRate(d->rateGui);
}

float AudioEngine::rate() const
{
    return d->rateGui;
}

void AudioEngine::setTapEnabled(bool enabled)
{
    d->tapGui = enabled;
    d->renderer.setTapEnabled(enabled);
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
