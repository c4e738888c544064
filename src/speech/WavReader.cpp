// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/WavReader.h"

#include <QtEndian>

namespace {

constexpr quint32 kUnknownSize = 0xFFFFFFFF;
constexpr quint32 kMaxFmtBytes = 4096;
// A data chunk that precedes its format is held until the format comes; not without end.
constexpr qsizetype kMaxEarlyData = 16 * 1024 * 1024;

quint32 u32(QByteArrayView bytes, qsizetype at)
{
    return qFromLittleEndian<quint32>(bytes.data() + at);
}

quint16 u16(QByteArrayView bytes, qsizetype at)
{
    return qFromLittleEndian<quint16>(bytes.data() + at);
}

} // namespace

QByteArray WavReader::fail(const QString &why)
{
    if (!m_failure)
        m_failure = why;
    m_pending.clear();
    m_earlyData.clear();
    return {};
}

QByteArray WavReader::push(QByteArrayView bytes)
{
    if (m_failure)
        return {};
    m_pending.append(bytes);
    QByteArray samples;
    qsizetype at = 0;
    for (;;) {
        const qsizetype available = m_pending.size() - at;
        if (m_stage == Stage::Riff) {
            if (available < 12)
                break;
            const QByteArrayView head(m_pending.constData() + at, 12);
            if (!(head.startsWith("RIFF") || head.startsWith("RF64")) || head.sliced(8, 4) != "WAVE")
                return fail(QStringLiteral("audio labelled WAV that is not WAV"));
            at += 12;
            m_stage = Stage::ChunkHeader;
        } else if (m_stage == Stage::ChunkHeader) {
            if (m_pad) {
                if (available < 1)
                    break;
                ++at;
                m_pad = false;
                continue;
            }
            if (available < 8)
                break;
            const QByteArrayView id(m_pending.constData() + at, 4);
            const quint32 size = u32(m_pending, at + 4);
            at += 8;
            m_chunkLeft = size;
            m_pad = size % 2 == 1;
            if (id == "data") {
                m_unbounded = size == 0 || size == kUnknownSize;
                m_stage = Stage::Data;
            } else if (id == "fmt ") {
                if (size < 16 || size > kMaxFmtBytes)
                    return fail(QStringLiteral("a WAV stream with a broken format chunk"));
                m_stage = Stage::Fmt;
            } else {
                if (size == kUnknownSize)
                    return fail(QStringLiteral("a WAV stream with a chunk of unknown size"));
                m_stage = Stage::Skip;
            }
        } else if (m_stage == Stage::Fmt) {
            if (quint64(available) < m_chunkLeft)
                break;
            if (m_format)
                return fail(QStringLiteral("a WAV stream with two format chunks"));
            if (!readFmt(QByteArrayView(m_pending.constData() + at, qsizetype(m_chunkLeft))))
                return {};
            at += qsizetype(m_chunkLeft);
            endChunk();
            samples.append(std::exchange(m_earlyData, QByteArray()));
        } else if (m_stage == Stage::Data) {
            const qsizetype take =
                m_unbounded ? available : qsizetype(std::min<quint64>(m_chunkLeft, quint64(available)));
            QByteArray &sink = m_format ? samples : m_earlyData;
            if (!m_format && m_unbounded)
                return fail(QStringLiteral("a WAV stream whose samples come before their format"));
            sink.append(m_pending.constData() + at, take);
            if (m_earlyData.size() > kMaxEarlyData)
                return fail(QStringLiteral("a WAV stream whose samples come before their format"));
            at += take;
            if (m_unbounded)
                break;
            m_chunkLeft -= quint64(take);
            if (m_chunkLeft > 0)
                break;
            endChunk();
        } else { // Skip
            const qsizetype take = qsizetype(std::min<quint64>(m_chunkLeft, quint64(available)));
            at += take;
            m_chunkLeft -= quint64(take);
            if (m_chunkLeft > 0)
                break;
            endChunk();
        }
    }
    m_pending.remove(0, at);
    return samples;
}

void WavReader::endChunk()
{
    m_stage = Stage::ChunkHeader;
}

bool WavReader::readFmt(QByteArrayView chunk)
{
    quint16 tag = u16(chunk, 0);
    const int channels = u16(chunk, 2);
    const quint32 rate = u32(chunk, 4);
    const int blockAlign = u16(chunk, 12);
    const int bits = u16(chunk, 14);
    if (tag == 0xFFFE && chunk.size() >= 40) // WAVE_FORMAT_EXTENSIBLE: the real tag leads the sub-format
        tag = u16(chunk, 24);
    PcmFormat format;
    format.rateHz = int(std::min<quint32>(rate, 0x7FFFFFFF));
    format.channels = channels;
    if (tag == 1 && bits == 8)
        format.sample = PcmFormat::U8;
    else if (tag == 1 && bits == 16)
        format.sample = PcmFormat::S16;
    else if (tag == 1 && bits == 24)
        format.sample = PcmFormat::S24;
    else if (tag == 1 && bits == 32)
        format.sample = PcmFormat::S32;
    else if (tag == 3 && bits == 32)
        format.sample = PcmFormat::F32;
    else if (tag == 3 && bits == 64)
        format.sample = PcmFormat::F64;
    else {
        fail(QStringLiteral("WAV with %1-bit samples of encoding %2").arg(bits).arg(tag));
        return false;
    }
    // The block size is the authority on each sample's container (24-bit samples may sit in 4 bytes).
    format.containerBytes = channels > 0 && blockAlign % channels == 0 && blockAlign / channels > 0
                                ? blockAlign / channels
                                : PcmFormat::bytesOf(format.sample);
    if (!SpeechResampler::isValid(format)) {
        fail(QStringLiteral("WAV with %1 channels at %2 Hz").arg(channels).arg(rate));
        return false;
    }
    m_format = format;
    return true;
}
