// SPDX-License-Identifier: GPL-3.0-or-later
// A speech server's answer read as it arrives: the format is decided within its sniffing limit and the
// same way for every longer start; the WAV reader gives the same samples however the bytes are split,
// never more than it was given, and stays failed once it has failed; whatever comes out of the resampler
// is whole 16-bit samples.
#include "FuzzCheck.h"
#include "speech/ServerAudioFormat.h"
#include "speech/SpeechResampler.h"
#include "speech/WavReader.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>

namespace {

struct Read
{
    QByteArray samples;
    std::optional<QString> failure;
    std::optional<PcmFormat> format;
};

Read readWav(const QByteArray &bytes, const std::vector<uint8_t> &lengths)
{
    WavReader reader;
    Read read;
    qsizetype at = 0;
    for (size_t i = 0; at < bytes.size(); ++i) {
        const qsizetype length =
            lengths.empty() ? bytes.size() : std::max<qsizetype>(1, lengths[i % lengths.size()]);
        const QByteArray piece = bytes.mid(at, length);
        at += piece.size();
        const QByteArray out = reader.push(piece);
        FUZZ_CHECK(!read.failure || out.isEmpty());
        read.samples += out;
        if (reader.failure())
            read.failure = reader.failure();
    }
    read.format = reader.format();
    return read;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const std::string label = input.ConsumeRandomLengthString(40);
    const std::vector<uint8_t> lengths =
        input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(0, 8));
    const std::string rest = input.ConsumeRemainingBytesAsString();
    const QByteArray bytes(rest.data(), qsizetype(rest.size()));
    const QByteArrayView contentType(label.data(), qsizetype(label.size()));

    const std::optional<ServerAudioFormat> whole = ServerAudioFormat::detect(bytes, contentType, true);
    FUZZ_CHECK(whole.has_value());
    if (bytes.size() >= ServerAudioFormat::kMaxSniffBytes) {
        const auto limited = ServerAudioFormat::detect(
            QByteArrayView(bytes).first(ServerAudioFormat::kMaxSniffBytes), contentType, false);
        FUZZ_CHECK(limited && limited->kind == whole->kind);
    }
    if (whole->kind == ServerAudioFormat::Pcm)
        FUZZ_CHECK(whole->rateHz >= 1 && whole->channels >= 1);

    const Read once = readWav(bytes, {});
    const Read split = readWav(bytes, lengths);
    FUZZ_CHECK(once.samples.size() <= bytes.size());
    FUZZ_CHECK(once.failure.has_value() == split.failure.has_value());
    if (!once.failure)
        FUZZ_CHECK(once.samples == split.samples);
    if (once.format && !once.failure) {
        FUZZ_CHECK(SpeechResampler::isValid(*once.format));
        // Kept short: the resampler's own work is not what is under test.
        SpeechResampler resampler(*once.format);
        QByteArray out = resampler.push(
            QByteArrayView(once.samples).first(std::min<qsizetype>(once.samples.size(), 4096)));
        out += resampler.finish();
        FUZZ_CHECK(once.format->isSpeechFormat() || out.size() % 2 == 0);
    }
    return 0;
}
