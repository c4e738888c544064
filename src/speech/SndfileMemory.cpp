// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/SndfileMemory.h"

#include <algorithm>
#include <cstring>

namespace {

SndfileMemory *self(void *user)
{
    return static_cast<SndfileMemory *>(user);
}

sf_count_t length(void *user)
{
    return self(user)->bytes.size();
}

sf_count_t seek(sf_count_t offset, int whence, void *user)
{
    SndfileMemory *m = self(user);
    const sf_count_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? m->position : m->bytes.size();
    const sf_count_t target = base + offset;
    if (target < 0 || target > m->bytes.size())
        return -1;
    m->position = target;
    return target;
}

sf_count_t read(void *ptr, sf_count_t count, void *user)
{
    SndfileMemory *m = self(user);
    const sf_count_t n = std::min<sf_count_t>({count, m->bytes.size() - m->position, m->readLimit});
    if (n <= 0)
        return 0;
    std::memcpy(ptr, m->bytes.constData() + m->position, size_t(n));
    m->position += n;
    return n;
}

sf_count_t write(const void *, sf_count_t, void *)
{
    return 0;
}

sf_count_t tell(void *user)
{
    return self(user)->position;
}

SF_VIRTUAL_IO io{length, seek, read, write, tell};

} // namespace

SNDFILE *SndfileMemory::open(SF_INFO &info)
{
    position = 0;
    return sf_open_virtual(&io, SFM_READ, &info, this);
}

std::vector<float> downmixed(const float *interleaved, sf_count_t frames, int channels)
{
    std::vector<float> mono(size_t(frames), 0.0f);
    for (sf_count_t i = 0; i < frames; ++i) {
        for (int c = 0; c < channels; ++c)
            mono[size_t(i)] += interleaved[size_t(i * channels + c)];
        mono[size_t(i)] /= float(channels);
    }
    return mono;
}
