// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

#include <cstddef>
#include <cstdint>
#include <functional>

// What an audio sink pulls samples from. Called on the sink's own thread (or, for the manual
// null sink, on the thread that advances its clock): it must not block and must not allocate.
class AudioRenderSource
{
public:
    virtual ~AudioRenderSource() = default;
    // Fills `frames` mono float samples at the sink's rate. `deviceDelayFrames` is how much audio the
    // sink has accepted earlier that is not yet heard (its buffer and the device's latency). `frames` may
    // be 0: the sink only tells how far playback has got.
    virtual void render(float *out, std::size_t frames, std::int64_t deviceDelayFrames) = 0;
};

// An output device for mono 24,000 Hz float audio.
class AudioSink
{
public:
    virtual ~AudioSink() = default;

    // Connects to the device and starts pulling from `source`, paused. False and a reason when it fails.
    virtual bool open(AudioRenderSource *source, QString *error) = 0;
    virtual bool isOpen() const = 0;
    // Resumes or pauses pulling (an idle device swallows the start of the next sound: callers resume it
    // as soon as sound is expected, before the first samples exist).
    virtual void setActive(bool active) = 0;
    // Drops audio already handed to the device but not yet heard (stop and seek are immediate).
    virtual void discardPending() = 0;
    virtual void close() = 0;

    // Called (on any thread) when the connection to the device is lost, with the reason.
    void setFailureHandler(std::function<void(const QString &)> handler) { m_onFailure = std::move(handler); }

protected:
    void reportFailure(const QString &reason)
    {
        if (m_onFailure)
            m_onFailure(reason);
    }

private:
    std::function<void(const QString &)> m_onFailure;
};
