// SPDX-License-Identifier: GPL-3.0-or-later
#include "AnswerEncoder.h"

#include <sndfile.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace {

void putLe(std::string &out, std::uint32_t value, int bytes)
{
    for (int i = 0; i < bytes; ++i)
        out.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
}

std::string pcmBytes(const std::vector<std::int16_t> &samples)
{
    std::string bytes;
    bytes.reserve(samples.size() * 2);
    for (const std::int16_t sample : samples)
        putLe(bytes, static_cast<std::uint16_t>(sample), 2);
    return bytes;
}

std::string wavHeader(int rateHz, std::uint32_t dataBytes, bool unknownSizes)
{
    std::string header = "RIFF";
    putLe(header, unknownSizes ? 0xFFFFFFFF : dataBytes + 36, 4);
    header += "WAVEfmt ";
    putLe(header, 16, 4);
    putLe(header, 1, 2); // PCM
    putLe(header, 1, 2); // mono
    putLe(header, static_cast<std::uint32_t>(rateHz), 4);
    putLe(header, static_cast<std::uint32_t>(rateHz) * 2, 4);
    putLe(header, 2, 2);
    putLe(header, 16, 2);
    header += "data";
    putLe(header, unknownSizes ? 0xFFFFFFFF : dataBytes, 4);
    return header;
}

struct Memory
{
    std::string bytes;
    sf_count_t position = 0;
};

std::string compressed(const std::vector<std::int16_t> &samples, int rateHz, int format)
{
    SF_VIRTUAL_IO io{
        [](void *user) -> sf_count_t {
            return static_cast<sf_count_t>(static_cast<Memory *>(user)->bytes.size());
        },
        [](sf_count_t offset, int whence, void *user) -> sf_count_t {
            auto *m = static_cast<Memory *>(user);
            const sf_count_t base = whence == SEEK_SET   ? 0
                                    : whence == SEEK_CUR ? m->position
                                                         : static_cast<sf_count_t>(m->bytes.size());
            m->position = std::max<sf_count_t>(0, base + offset);
            return m->position;
        },
        [](void *ptr, sf_count_t count, void *user) -> sf_count_t {
            auto *m = static_cast<Memory *>(user);
            const auto size = static_cast<sf_count_t>(m->bytes.size());
            const sf_count_t n = std::clamp<sf_count_t>(size - m->position, 0, count);
            std::memcpy(ptr, m->bytes.data() + m->position, static_cast<std::size_t>(n));
            m->position += n;
            return n;
        },
        [](const void *ptr, sf_count_t count, void *user) -> sf_count_t {
            auto *m = static_cast<Memory *>(user);
            const auto end = static_cast<std::size_t>(m->position + count);
            if (m->bytes.size() < end)
                m->bytes.resize(end);
            std::memcpy(m->bytes.data() + m->position, ptr, static_cast<std::size_t>(count));
            m->position += count;
            return count;
        },
        [](void *user) -> sf_count_t { return static_cast<Memory *>(user)->position; },
    };
    Memory memory;
    SF_INFO info{};
    info.samplerate = rateHz;
    info.channels = 1;
    info.format = format;
    SNDFILE *file = sf_open_virtual(&io, SFM_WRITE, &info, &memory);
    if (!file)
        throw std::runtime_error(std::string("libsndfile: ") + sf_strerror(nullptr));
    sf_writef_short(file, samples.data(), static_cast<sf_count_t>(samples.size()));
    sf_close(file);
    return std::move(memory.bytes);
}

} // namespace

EncodedAnswer EncodedAnswer::encode(const std::vector<std::int16_t> &samples, const Options &options)
{
    const int rate = options.audioRateHz;
    EncodedAnswer answer;
    switch (options.audioFormat) {
    case Options::AudioFormat::Pcm:
        answer.bytes = pcmBytes(samples);
        answer.contentType = rate == 24000 ? "audio/pcm" : "audio/pcm;rate=" + std::to_string(rate);
        break;
    case Options::AudioFormat::Wav:
        answer.bytes = pcmBytes(samples);
        answer.headerBytes = 44;
        answer.bytes.insert(
            0, wavHeader(rate, static_cast<std::uint32_t>(answer.bytes.size()), options.wavUnknownSizes));
        answer.contentType = "audio/wav";
        break;
    case Options::AudioFormat::Mp3:
        answer.bytes = compressed(samples, rate, SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III);
        answer.contentType = "audio/mpeg";
        break;
    case Options::AudioFormat::Ogg:
        answer.bytes = compressed(samples, rate, SF_FORMAT_OGG | SF_FORMAT_VORBIS);
        answer.contentType = "audio/ogg";
        break;
    case Options::AudioFormat::Flac:
        answer.bytes = compressed(samples, rate, SF_FORMAT_FLAC | SF_FORMAT_PCM_16);
        answer.contentType = "audio/flac";
        break;
    }
    if (!options.contentType.empty())
        answer.contentType = options.contentType;
    const double seconds = static_cast<double>(samples.size()) / rate;
    const bool raw =
        options.audioFormat == Options::AudioFormat::Pcm || options.audioFormat == Options::AudioFormat::Wav;
    answer.bytesPerSecond =
        raw || seconds <= 0 ? rate * 2.0 : static_cast<double>(answer.bytes.size()) / seconds;
    return answer;
}
