// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/SpeechResampler.h"

#include <QtEndian>

#include <soxr.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

namespace {

constexpr int kSpeechRateHz = 24000;

float sampleAt(const uchar *p, PcmFormat::Sample sample, int containerBytes)
{
    switch (sample) {
    case PcmFormat::U8:
        return (float(p[0]) - 128.0f) / 128.0f;
    case PcmFormat::S16:
        return float(qFromLittleEndian<qint16>(p)) / 32768.0f;
    case PcmFormat::S24: {
        // The sample is the container's top three bytes (a 24-bit sample in a 4-byte container is
        // left-aligned, as WAVE_FORMAT_EXTENSIBLE has it).
        const uchar *s = p + containerBytes - 3;
        const qint32 v = qint32(quint32(s[0]) << 8 | quint32(s[1]) << 16 | quint32(s[2]) << 24);
        return float(v) / 2147483648.0f;
    }
    case PcmFormat::S32:
        return float(double(qFromLittleEndian<qint32>(p)) / 2147483648.0);
    case PcmFormat::F32: {
        const quint32 bits = qFromLittleEndian<quint32>(p);
        float v;
        std::memcpy(&v, &bits, sizeof v);
        return v;
    }
    case PcmFormat::F64: {
        const quint64 bits = qFromLittleEndian<quint64>(p);
        double v;
        std::memcpy(&v, &bits, sizeof v);
        return float(v);
    }
    }
    return 0;
}

qint16 toInt16(float v)
{
    if (!(v == v)) // NaN
        return 0;
    const float scaled = std::round(v * 32768.0f);
    return qint16(std::clamp(scaled, -32768.0f, 32767.0f));
}

} // namespace

int PcmFormat::bytesOf(Sample sample)
{
    switch (sample) {
    case U8:
        return 1;
    case S16:
        return 2;
    case S24:
        return 3;
    case S32:
    case F32:
        return 4;
    case F64:
        return 8;
    }
    return 0;
}

bool SpeechResampler::isValid(const PcmFormat &format)
{
    return format.rateHz >= 1 && format.rateHz <= 768000 && format.channels >= 1 && format.channels <= 64 &&
           format.containerBytes >= PcmFormat::bytesOf(format.sample) && format.containerBytes <= 8;
}

SpeechResampler::SpeechResampler(const PcmFormat &format)
    : m_format(format)
{
    Q_ASSERT(isValid(format));
    if (format.rateHz != kSpeechRateHz) {
        soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_INT16_I);
        io.flags |= SOXR_NO_DITHER; // the same answer always plays as the same samples
        // Low quality (16-bit precision, the output's own) delays by about a millisecond where the
        // better filters hold back 20 to 25 ms, which the first sound would wait for; it gives up only
        // the top of the band, where speech has little.
        const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_LQ, 0);
        soxr_error_t error = nullptr;
        m_soxr = soxr_create(double(format.rateHz), double(kSpeechRateHz), 1, &error, &io, &quality, nullptr);
        if (error)
            m_soxr = nullptr;
    }
}

SpeechResampler::~SpeechResampler()
{
    if (m_soxr)
        soxr_delete(m_soxr);
}

QByteArray SpeechResampler::push(QByteArrayView bytes)
{
    if (m_format.isSpeechFormat())
        return bytes.toByteArray();
    QByteArray input = std::exchange(m_partialFrame, QByteArray());
    input.append(bytes);
    const int frameBytes = m_format.frameBytes();
    const qsizetype frames = input.size() / frameBytes;
    m_partialFrame = input.sliced(frames * frameBytes);
    std::vector<float> mono(size_t(frames), 0.0f);
    const auto *p = reinterpret_cast<const uchar *>(input.constData());
    for (qsizetype f = 0; f < frames; ++f) {
        float sum = 0;
        for (int c = 0; c < m_format.channels; ++c, p += m_format.containerBytes)
            sum += sampleAt(p, m_format.sample, m_format.containerBytes);
        mono[size_t(f)] = sum / float(m_format.channels);
    }
    return convert(mono.data(), frames);
}

QByteArray SpeechResampler::pushMono(const float *samples, qsizetype count)
{
    return convert(samples, count);
}

QByteArray SpeechResampler::convert(const float *mono, qsizetype count)
{
    QByteArray out;
    if (count <= 0)
        return out;
    if (m_format.rateHz == kSpeechRateHz) {
        out.resize(count * 2);
        auto *o = reinterpret_cast<uchar *>(out.data());
        for (qsizetype i = 0; i < count; ++i)
            qToLittleEndian<qint16>(toInt16(mono[i]), o + 2 * i);
        return out;
    }
    if (!m_soxr)
        return out;
    const double ratio = double(kSpeechRateHz) / double(m_format.rateHz);
    std::vector<qint16> samples(size_t(std::ceil(double(count) * ratio)) + 64);
    size_t consumed = 0;
    size_t produced = 0;
    while (consumed < size_t(count)) {
        if (produced == samples.size())
            samples.resize(samples.size() * 2);
        size_t used = 0;
        size_t made = 0;
        if (soxr_process(m_soxr, mono + consumed, size_t(count) - consumed, &used, samples.data() + produced,
                         samples.size() - produced, &made))
            break;
        consumed += used;
        produced += made;
        if (used == 0 && made == 0)
            break;
    }
    out.resize(qsizetype(produced * 2));
    for (size_t i = 0; i < produced; ++i)
        qToLittleEndian<qint16>(samples[i], reinterpret_cast<uchar *>(out.data()) + 2 * i);
    return out;
}

QByteArray SpeechResampler::finish()
{
    if (m_format.isSpeechFormat())
        return {};
    m_partialFrame.clear();
    QByteArray out;
    if (!m_soxr)
        return out;
    std::vector<qint16> samples(4096);
    for (;;) {
        size_t made = 0;
        if (soxr_process(m_soxr, nullptr, 0, nullptr, samples.data(), samples.size(), &made) || made == 0)
            break;
        for (size_t i = 0; i < made; ++i) {
            char bytes[2];
            qToLittleEndian<qint16>(samples[i], bytes);
            out.append(bytes, 2);
        }
    }
    return out;
}
