// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/NarrationPlayback.h"

#include "core/Logging.h"
#include "platform/AudioSink.h"
#include "speech/AudioEngine.h"
#include "speech/LevelPublisher.h"

#include <algorithm>

namespace {

constexpr qsizetype kPrebufferBytes =
    qsizetype(NarrationPlayback::kPrebufferDurationSeconds * NarrationPlayback::kSampleRateHz * 2);

double secondsForBytes(qint64 bytes)
{
    return double(bytes) * 0.5 / NarrationPlayback::kSampleRateHz;
}

} // namespace

NarrationPlayback::NarrationPlayback(std::unique_ptr<AudioSink> sink, QObject *parent)
    : QObject(parent)
    , m_engine(std::make_unique<AudioEngine>(std::move(sink)))
    , m_levels(std::make_unique<LevelPublisher>(*m_engine))
{
    m_seekDebounce.setSingleShot(true);
    m_seekDebounce.setInterval(50);
    connect(&m_seekDebounce, &QTimer::timeout, this, &NarrationPlayback::performPendingSeek);
    m_progressTimer.setInterval(200);
    connect(&m_progressTimer, &QTimer::timeout, this, &NarrationPlayback::updateProgress);

    m_engine->setRate(m_playbackSpeed);
    connect(m_engine.get(), &AudioEngine::bufferCompleted, this, &NarrationPlayback::onBufferCompleted);
    connect(m_engine.get(), &AudioEngine::levelMeasured, this,
            [this](float level, double timestamp) { m_levels->publish(level, timestamp, m_isPlaying); });
    connect(m_engine.get(), &AudioEngine::failed, this, &NarrationPlayback::onEngineFailed);
}

NarrationPlayback::~NarrationPlayback() = default;

std::optional<QString> NarrationPlayback::connectOutput()
{
    if (m_engine->isRunning())
        return std::nullopt;
    QString error;
    if (m_engine->start(&error))
        return std::nullopt;
    return error;
}

// ---------------------------------------------------------------------------------------------------
// Stream intake

void NarrationPlayback::beginStream(double estimatedSeconds)
{
    setIsProcessing(true);
    withState([](StreamState &s) { s.isStreamActive = true; });
    setHasContent(true);
    setIsPlaying(false);
    withState([](StreamState &s) { s.hasStartedPlayback = false; });
    setDisplayedTotalTime(estimatedSeconds <= 0.1 ? 0.1 : estimatedSeconds);
}

void NarrationPlayback::prepareOutput()
{
    m_engine->prepare();
}

void NarrationPlayback::abandonRequest()
{
    setIsProcessing(false);
    if (!m_isPlaying)
        m_engine->stop(); // let the device idle again
}

void NarrationPlayback::appendChunk(const QByteArray &chunk)
{
    acceptChunk(chunk);
    publishTotals();
    startCheck(false);
}

void NarrationPlayback::acceptChunk(const QByteArray &chunk)
{
    withState([&](StreamState &s) { s.accumulatedData.append(chunk); });
    scheduleChunk(chunk, 0, chunk.size());
    withState([&](StreamState &s) { s.receivedByteCount += chunk.size(); });
}

void NarrationPlayback::publishTotals()
{
    setTotalTime(secondsForBytes(withState([](StreamState &s) { return s.receivedByteCount; })));
    raiseDisplayedTotalTime();
}

void NarrationPlayback::startCheck(bool streamEnded)
{
    const auto [started, held] =
        withState([](StreamState &s) { return std::pair(s.hasStartedPlayback, s.accumulatedData.size()); });
    if (started)
        return;
    // A stream that ended short of the prebuffer is played anyway: people select single words.
    if (held >= kPrebufferBytes || (streamEnded && held > 0))
        startPlayback();
}

void NarrationPlayback::finishStream(const QByteArray &tail)
{
    withState([](StreamState &s) { s.isStreamActive = false; });
    if (!tail.isEmpty())
        acceptChunk(tail);
    publishTotals();
    startCheck(true);
    m_engine->markEndOfInput();
}

void NarrationPlayback::endIfDrained()
{
    if (withState([](StreamState &s) { return s.activeBuffersCount; }) == 0)
        endOfPlayback();
}

QByteArray NarrationPlayback::receivedAudio() const
{
    return withState([](const StreamState &s) { return s.accumulatedData.joined(); });
}

qsizetype NarrationPlayback::accumulatedByteCount() const
{
    return withState([](const StreamState &s) { return s.accumulatedData.size(); });
}

bool NarrationPlayback::isStreamActive() const
{
    return withState([](const StreamState &s) { return s.isStreamActive; });
}

// ---------------------------------------------------------------------------------------------------
// Scheduling and playback

void NarrationPlayback::scheduleChunk(const QByteArray &storage, qsizetype offset, qsizetype bytes)
{
    if (bytes / 2 == 0)
        return;
    withState([](StreamState &s) { ++s.activeBuffersCount; });
    m_engine->scheduleBuffer(storage, offset, bytes, m_bufferGeneration);
}

void NarrationPlayback::scheduleAllFrom(qsizetype fromByte)
{
    AccumulatedAudio audio;
    bool streamActive = false;
    withState([&](StreamState &s) {
        audio = s.accumulatedData;
        streamActive = s.isStreamActive;
    });
    audio.forEachRange(fromByte, kAudioChunkSize,
                       [this](const QByteArray &storage, qsizetype offset, qsizetype bytes) {
                           scheduleChunk(storage, offset, bytes);
                       });
    if (!streamActive)
        m_engine->markEndOfInput();
}

void NarrationPlayback::startPlayback()
{
    resumeSound();
    withState([](StreamState &s) { s.hasStartedPlayback = true; });
    raiseDisplayedTotalTime();
    setIsProcessing(false);
}

void NarrationPlayback::endOfPlayback()
{
    setIsPlaying(false);
    m_progressTimer.stop();
    m_levels->removeTap();
    m_engine->stop();
    withState([](StreamState &s) { s.hasStartedPlayback = false; });
    setCurrentTime(m_totalTime);
    raiseDisplayedTotalTime();
    Q_EMIT ended();
}

void NarrationPlayback::onBufferCompleted(quint64 generation)
{
    if (generation != m_bufferGeneration)
        return; // scheduled before a stop or seek
    const bool finished = withState(
        [](StreamState &s) { return --s.activeBuffersCount == 0 && !s.isStreamActive && !s.isSeeking; });
    if (finished)
        endOfPlayback();
}

void NarrationPlayback::togglePlayPause()
{
    if (m_seekDebounce.isActive()) {
        m_seekDebounce.stop();
        performPendingSeek();
    }
    if (m_isPlaying) {
        m_engine->pause();
        setIsPlaying(false);
        m_progressTimer.stop();
        return;
    }
    const auto [active, held] =
        withState([](StreamState &s) { return std::pair(s.activeBuffersCount, s.accumulatedData.size()); });
    // Nothing to play (stopped, failed before any audio, or audio still to come, which starts by itself).
    if (!m_hasContent || held == 0)
        return;
    if (active == 0) {
        // Played to the end: start again from the beginning.
        if (!reconnectOutput())
            return;
        m_engine->stop();
        m_currentFrameOffset = 0;
        setCurrentTime(0);
        scheduleAllFrom(0);
    }
    if (!reconnectOutput())
        return;
    resumeSound();
}

void NarrationPlayback::resumeSound()
{
    m_engine->play();
    setIsPlaying(true);
    m_progressTimer.start();
    if (!m_levels->isTapInstalled())
        m_levels->installTap();
    Q_EMIT errorCleared();
}

bool NarrationPlayback::reconnectOutput()
{
    const std::optional<QString> reason = connectOutput();
    if (reason)
        Q_EMIT errorRaised(SpeechError::makeAudioEngineFailure(*reason));
    return !reason;
}

void NarrationPlayback::stop()
{
    m_seekDebounce.stop();
    m_pendingSeekFrame.reset();
    withState([](StreamState &s) { s.isSeeking = false; });
    ++m_bufferGeneration;
    withState([](StreamState &s) { s.activeBuffersCount = 0; });
    m_engine->stop();
    m_progressTimer.stop();
    m_levels->removeTap();
    withState([](StreamState &s) {
        s.accumulatedData.clear();
        s.receivedByteCount = 0;
        s.hasStartedPlayback = false;
    });
    m_currentFrameOffset = 0;
    setCurrentTime(0);
    setTotalTime(0);
    setDisplayedTotalTime(0);
    withState([](StreamState &s) { s.isStreamActive = false; });
    setIsPlaying(false);
    setIsProcessing(false);
    setHasContent(false);
}

void NarrationPlayback::replay(const QByteArray &audio)
{
    withState([&](StreamState &s) {
        s.accumulatedData.assign(audio);
        s.receivedByteCount = audio.size();
    });
    const double total = double(audio.size() / 2) / kSampleRateHz;
    setTotalTime(total);
    setDisplayedTotalTime(total);
    setCurrentTime(0);
    m_currentFrameOffset = 0;
    setHasContent(true);
    scheduleAllFrom(0);
    resumeSound();
}

// ---------------------------------------------------------------------------------------------------
// Position

void NarrationPlayback::seekToFrame(qint64 frame)
{
    m_pendingSeekFrame = frame;
    const qint64 frames = accumulatedByteCount() / 2;
    setCurrentTime(double(std::clamp<qint64>(frame, 0, frames)) / kSampleRateHz);
    m_seekDebounce.start();
}

void NarrationPlayback::seekToProgress(double fraction)
{
    performSeek(qint64(double(accumulatedByteCount()) * 0.5 * fraction));
}

void NarrationPlayback::performPendingSeek()
{
    if (const std::optional<qint64> frame = std::exchange(m_pendingSeekFrame, std::nullopt))
        performSeek(*frame);
}

void NarrationPlayback::performSeek(qint64 frame)
{
    withState([](StreamState &s) { s.isSeeking = true; });
    const qint64 frames = accumulatedByteCount() / 2;
    const qint64 target = std::clamp<qint64>(frame, 0, frames);
    ++m_bufferGeneration;
    withState([](StreamState &s) { s.activeBuffersCount = 0; });
    m_engine->stop();
    m_currentFrameOffset = target;
    setCurrentTime(double(target) / kSampleRateHz);
    if (target < frames) {
        scheduleAllFrom(target * 2);
        if (m_isPlaying)
            m_engine->play(); // a paused narration stays paused at the new place
    } else {
        endOfPlayback();
    }
    withState([](StreamState &s) { s.isSeeking = false; });
    Q_EMIT seekPerformed(target);
}

qint64 NarrationPlayback::currentPlaybackFrame() const
{
    return m_currentFrameOffset + m_engine->sampleTime().value_or(0);
}

void NarrationPlayback::skipBackward()
{
    seekToFrame(currentPlaybackFrame() - kSkipFrames);
}

void NarrationPlayback::skipForward()
{
    seekToFrame(currentPlaybackFrame() + kSkipFrames);
}

void NarrationPlayback::updateProgress()
{
    setCurrentTime(double(currentPlaybackFrame()) / kSampleRateHz);
    // Heard buffers that cannot end playback wait for this tick instead of waking the thread each.
    m_engine->deliverPending();
}

// ---------------------------------------------------------------------------------------------------
// A lost output

void NarrationPlayback::onEngineFailed(const QString &reason)
{
    qCWarning(lcSpeech) << "audio output lost:" << reason;
    if (m_hasContent)
        holdAfterLostOutput();
    Q_EMIT errorRaised(SpeechError::makeAudioEngineFailure(reason));
}

// The sound server went away: the narration keeps its audio, place and record, and waits, paused, for
// the user to press play once a server is back. Nothing reconnects by itself, not even when more audio
// arrives.
void NarrationPlayback::holdAfterLostOutput()
{
    const qint64 heard = m_pendingSeekFrame.value_or(currentPlaybackFrame());
    m_seekDebounce.stop();
    m_pendingSeekFrame.reset();
    setIsPlaying(false);
    m_progressTimer.stop();
    m_levels->removeTap();
    // Queued again from the place heard, paused; what is still to come is queued after it.
    const qint64 frames = accumulatedByteCount() / 2;
    const qint64 target = std::clamp<qint64>(heard, 0, frames);
    const bool streaming = withState([](StreamState &s) {
        s.hasStartedPlayback = true;
        s.activeBuffersCount = 0;
        return s.isStreamActive;
    });
    ++m_bufferGeneration;
    m_engine->stop();
    m_currentFrameOffset = target;
    setCurrentTime(double(target) / kSampleRateHz);
    if (target < frames)
        scheduleAllFrom(target * 2);
    else if (!streaming)
        endOfPlayback();
}

// ---------------------------------------------------------------------------------------------------
// Published values

void NarrationPlayback::raiseDisplayedTotalTime()
{
    setDisplayedTotalTime(std::max(m_displayedTotalTime, m_totalTime));
}

void NarrationPlayback::setPlaybackSpeed(float speed)
{
    m_engine->setRate(speed);
    if (m_playbackSpeed == speed)
        return;
    m_playbackSpeed = speed;
    Q_EMIT playbackSpeedChanged();
}
