// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QByteArrayView>

#include <memory>

struct soxr;

// Interleaved little-endian samples as a server sends them.
struct PcmFormat
{
    enum Sample { U8, S16, S24, S32, F32, F64 };

    int rateHz = 24000;
    int channels = 1;
    Sample sample = S16;
    // Bytes one sample takes in a frame (24-bit samples may sit in 4 bytes).
    int containerBytes = 2;

    int frameBytes() const { return channels * containerBytes; }
    bool isSpeechFormat() const { return rateHz == 24000 && channels == 1 && sample == S16; }
    static int bytesOf(Sample sample);
};

// Turns PCM of any rate, channel count and sample type into the speech format (24 kHz mono 16-bit) as
// it arrives: channels are averaged and libsoxr resamples in streaming mode, so output follows input
// after the filter's short delay. The speech format itself passes through untouched, byte for byte.
class SpeechResampler
{
public:
    // The format must be valid: rate 1 Hz to 768 kHz, 1 to 64 channels, a container that fits the sample.
    explicit SpeechResampler(const PcmFormat &format);
    ~SpeechResampler();
    SpeechResampler(const SpeechResampler &) = delete;
    SpeechResampler &operator=(const SpeechResampler &) = delete;

    // Returns the speech-format bytes these input bytes complete; a partial frame waits for the rest.
    QByteArray push(QByteArrayView bytes);
    // Mono float samples at the input rate (decoders hand these over).
    QByteArray pushMono(const float *samples, qsizetype count);
    // The input has ended: what the filter still holds.
    QByteArray finish();

    static bool isValid(const PcmFormat &format);

private:
    QByteArray convert(const float *mono, qsizetype count);

    PcmFormat m_format;
    QByteArray m_partialFrame;
    soxr *m_soxr = nullptr;
};
