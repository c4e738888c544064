// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "speech/SpeechResampler.h"

#include <QByteArray>
#include <QString>

#include <optional>

// Reads a WAV stream as it arrives: the fmt chunk, then the samples of the data chunk, whatever other
// chunks come between or around them. A streaming writer cannot know the sizes, so a data size of 0 or
// 0xFFFFFFFF means "to the end of the stream"; RF64's placeholder sizes read the same way.
class WavReader
{
public:
    // Adds the next bytes; returns the sample bytes they complete, once the format is known. After a
    // failure nothing more is returned.
    QByteArray push(QByteArrayView bytes);

    const std::optional<PcmFormat> &format() const { return m_format; }
    // Why the stream cannot be played, once that is clear ("not a WAV stream", an unsupported encoding).
    const std::optional<QString> &failure() const { return m_failure; }
    // True before the format has been seen: more bytes are needed to start.
    bool needsMore() const { return !m_format && !m_failure; }

private:
    enum class Stage { Riff, ChunkHeader, Fmt, Data, Skip };

    QByteArray fail(const QString &why);
    bool readFmt(QByteArrayView chunk);
    void endChunk();

    Stage m_stage = Stage::Riff;
    QByteArray m_pending;
    quint64 m_chunkLeft = 0; // bytes of the current chunk still to come
    bool m_unbounded = false;
    bool m_pad = false;
    std::optional<PcmFormat> m_format;
    std::optional<QString> m_failure;
    QByteArray m_earlyData; // samples of a data chunk that came before the fmt chunk
};
