// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>

#include <sndfile.h>

#include <limits>
#include <vector>

// Bytes in memory that libsndfile reads through its virtual I/O: bundled files read whole, or a response
// body as far as it has arrived.
struct SndfileMemory
{
    QByteArray bytes;
    sf_count_t position = 0;
    // The most one read hands over.
    sf_count_t readLimit = std::numeric_limits<sf_count_t>::max();

    // Opens the bytes for reading from their start; null when libsndfile does not know them.
    SNDFILE *open(SF_INFO &info);
};

// The frames' channels averaged into one.
std::vector<float> downmixed(const float *interleaved, sf_count_t frames, int channels);
