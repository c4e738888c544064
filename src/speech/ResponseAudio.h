// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "speech/ServerAudioFormat.h"

#include <QByteArray>
#include <QString>

#include <memory>
#include <optional>

class CompressedAudioDecoder;
class SpeechResampler;
class WavReader;

// One response body of a speech server the user chose, turned into the speech format (raw 24 kHz mono
// 16-bit) as it arrives, whatever the server sent: raw PCM at any rate, WAV, or a compressed format
// that can be decoded. Nothing but the speech format ever comes out; what cannot be played ends with
// failure() set, in words fit to show.
class ResponseAudio
{
public:
    explicit ResponseAudio(QByteArray contentType);
    ~ResponseAudio();
    ResponseAudio(const ResponseAudio &) = delete;
    ResponseAudio &operator=(const ResponseAudio &) = delete;

    // Adds a piece of the body; returns the speech-format bytes it completes (often none at first).
    QByteArray push(QByteArrayView piece);
    // The body has ended: the rest. A body that held no audio at all fails here.
    QByteArray finish();

    // Set once the body cannot be played; nothing more comes out then.
    const std::optional<QString> &failure() const { return m_failure; }
    // Nothing while the first bytes are still being looked at.
    const std::optional<ServerAudioFormat> &format() const { return m_format; }

    static QString noAudioMessage();

private:
    QByteArray start(bool ended);
    QByteArray feed(QByteArrayView bytes);
    QByteArray output(QByteArray bytes);
    void fail(const QString &message);

    QByteArray m_contentType;
    QByteArray m_sniffed;
    std::optional<ServerAudioFormat> m_format;
    std::unique_ptr<WavReader> m_wav;
    std::unique_ptr<SpeechResampler> m_resampler;
    std::unique_ptr<CompressedAudioDecoder> m_decoder;
    std::optional<QString> m_failure;
    qint64 m_producedBytes = 0;
};
