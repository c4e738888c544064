// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "speech/ServerAudioFormat.h"

#include <QByteArray>
#include <QString>

#include <memory>
#include <optional>

// Decodes a compressed answer (MP3, Ogg Vorbis or Opus, FLAC) into the speech format while it streams.
// MP3 goes through mpg123's feed interface, which decodes each frame as soon as it is whole; Ogg and
// FLAC go through libsndfile, which reads as from a file and so is kept a margin behind the bytes that
// have arrived (it would take a short read for the end of the file).
class CompressedAudioDecoder
{
public:
    virtual ~CompressedAudioDecoder() = default;

    // Nothing for a kind that has no decoder here.
    static std::unique_ptr<CompressedAudioDecoder> create(ServerAudioFormat::Kind kind);

    // Adds bytes of the body; returns the speech-format bytes decoded so far.
    virtual QByteArray push(QByteArrayView bytes) = 0;
    // The body has ended: the rest.
    virtual QByteArray finish() = 0;
    // Set once the bytes cannot be decoded; nothing more comes then.
    const std::optional<QString> &failure() const { return m_failure; }

protected:
    std::optional<QString> m_failure;
};
