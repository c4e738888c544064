// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "core/Published.h"
#include "speech/AccumulatedAudio.h"
#include "speech/SpeechError.h"

#include <QObject>
#include <QTimer>

#include <memory>
#include <mutex>
#include <optional>

class AudioEngine;
class AudioSink;
class LevelPublisher;

// The audio of one narration and its published playback state: the received audio kept whole, its
// buffers scheduled on the engine from any place, seeking, speed, the progress clock, and the levels.
// Lives on the GUI thread.
class NarrationPlayback : public QObject
{
    Q_OBJECT
public:
    static constexpr int kSampleRateHz = 24000;
    static constexpr qsizetype kAudioChunkSize = 9600;
    static constexpr double kPrebufferDurationSeconds = 0.5;
    static constexpr qint64 kSkipFrames = 120000;

    explicit NarrationPlayback(std::unique_ptr<AudioSink> sink, QObject *parent = nullptr);
    ~NarrationPlayback() override;

    // Connects the audio output if it is not; the reason when it cannot.
    std::optional<QString> connectOutput();

    // A request has started: processing, with content, an estimated total until audio arrives.
    void beginStream(double estimatedSeconds);
    // Wakes the device ahead of the first audio.
    void prepareOutput();
    // The request failed before any audio: nothing is processing, and a woken device idles again.
    void abandonRequest();
    void appendChunk(const QByteArray &chunk);
    // The stream ended with `tail` (bytes short of a whole chunk): playback starts even if short of the
    // prebuffer, and the engine drains to the end.
    void finishStream(const QByteArray &tail);
    // Ends playback now when no scheduled buffer is left to hear.
    void endIfDrained();
    // Plays complete audio from its start.
    void replay(const QByteArray &audio);
    void stop();

    void togglePlayPause();
    void seekToFrame(qint64 frame);
    void seekToProgress(double fraction);
    qint64 currentPlaybackFrame() const;
    void skipBackward();
    void skipForward();

    QByteArray receivedAudio() const;
    qsizetype accumulatedByteCount() const;
    bool isStreamActive() const;
    AudioEngine *audioEngine() const { return m_engine.get(); }
    LevelPublisher &levels() const { return *m_levels; }

    bool isProcessing() const { return m_isProcessing; }
    bool isPlaying() const { return m_isPlaying; }
    bool hasContent() const { return m_hasContent; }
    float playbackSpeed() const { return m_playbackSpeed; }
    void setPlaybackSpeed(float speed);
    double currentTime() const { return m_currentTime; }
    double totalTime() const { return m_totalTime; }
    double displayedTotalTime() const { return m_displayedTotalTime; }

Q_SIGNALS:
    void isProcessingChanged();
    void isPlayingChanged();
    void hasContentChanged();
    void playbackSpeedChanged();
    void currentTimeChanged();
    void totalTimeChanged();
    void displayedTotalTimeChanged();
    // The narration was heard to its end.
    void ended();
    void seekPerformed(qint64 frame);
    // The published error follows playback: sound (re)started clears it, a lost output sets it.
    void errorCleared();
    void errorRaised(const SpeechError &error);

private:
    // Guarded stream state: touched from the network side, the audio completions and the GUI; every
    // access is one short critical section.
    struct StreamState
    {
        AccumulatedAudio accumulatedData;
        qint64 activeBuffersCount = 0;
        qint64 receivedByteCount = 0;
        bool isStreamActive = false;
        bool hasStartedPlayback = false;
        bool isSeeking = false;
    };
    template<typename F> auto withState(F &&f) const
    {
        std::lock_guard lock(m_stateMutex);
        return f(m_state);
    }

    void acceptChunk(const QByteArray &chunk);
    void publishTotals();
    void startCheck(bool streamEnded);
    void scheduleChunk(const QByteArray &storage, qsizetype offset, qsizetype bytes);
    void scheduleAllFrom(qsizetype fromByte);
    void startPlayback();
    // Sound starts or resumes from what is queued: the progress clock, the levels, and no error any more.
    void resumeSound();
    // Connects the output if it is not, or publishes why it cannot.
    bool reconnectOutput();
    void endOfPlayback();
    void onBufferCompleted(quint64 generation);
    void performSeek(qint64 frame);
    void performPendingSeek();
    void updateProgress();
    void onEngineFailed(const QString &reason);
    void holdAfterLostOutput();

    template<typename T> void publish(T &field, T value, void (NarrationPlayback::*changed)())
    {
        if (assignIfChanged(field, value))
            Q_EMIT(this->*changed)();
    }
    void setIsProcessing(bool v) { publish(m_isProcessing, v, &NarrationPlayback::isProcessingChanged); }
    void setIsPlaying(bool v) { publish(m_isPlaying, v, &NarrationPlayback::isPlayingChanged); }
    void setHasContent(bool v) { publish(m_hasContent, v, &NarrationPlayback::hasContentChanged); }
    void setCurrentTime(double v) { publish(m_currentTime, v, &NarrationPlayback::currentTimeChanged); }
    void setTotalTime(double v) { publish(m_totalTime, v, &NarrationPlayback::totalTimeChanged); }
    void setDisplayedTotalTime(double v)
    {
        publish(m_displayedTotalTime, v, &NarrationPlayback::displayedTotalTimeChanged);
    }
    void raiseDisplayedTotalTime();

    std::unique_ptr<AudioEngine> m_engine;
    std::unique_ptr<LevelPublisher> m_levels;

    bool m_isProcessing = false;
    bool m_isPlaying = false;
    bool m_hasContent = false;
    float m_playbackSpeed = 1.0f;
    double m_currentTime = 0;
    double m_totalTime = 0;
    double m_displayedTotalTime = 0;

    std::optional<qint64> m_pendingSeekFrame;
    QTimer m_seekDebounce;
    quint64 m_bufferGeneration = 0;
    QTimer m_progressTimer;
    qint64 m_currentFrameOffset = 0;

    mutable std::mutex m_stateMutex;
    mutable StreamState m_state; // guarded by m_stateMutex
};
