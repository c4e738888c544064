// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "Options.h"

#include <cstdint>
#include <string>
#include <vector>

// The body of a speech answer in the format the server was told to send, as self-hosted speech servers
// answer: raw PCM, WAV (streamed WAV carries 0xFFFFFFFF sizes), or MP3, Ogg Vorbis or FLAC.
struct EncodedAnswer
{
    std::string bytes;
    std::string contentType;
    // Leading bytes that are no audio (a WAV header).
    std::size_t headerBytes = 0;
    // What the body's bytes take per second of audio, for pacing.
    double bytesPerSecond = 48000;

    // samples are mono 16-bit at options.audioRateHz. Throws std::runtime_error if encoding fails.
    static EncodedAnswer encode(const std::vector<std::int16_t> &samples, const Options &options);
};
