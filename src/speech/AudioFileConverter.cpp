// SPDX-License-Identifier: GPL-3.0-or-later
// Decoding of bundled audio files (voice samples) into the speech format: libsndfile reads the file
// through a virtual I/O layer (so that Qt resources work), libsoxr resamples to 24 kHz.
#include "speech/SpeechManager.h"

#include <QFile>
#include <QScopeGuard>

#include <sndfile.h>
#include <soxr.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

namespace {

struct MemoryFile
{
    QByteArray bytes;
    sf_count_t position = 0;
};

sf_count_t vioLength(void *user)
{
    return static_cast<MemoryFile *>(user)->bytes.size();
}

sf_count_t vioSeek(sf_count_t offset, int whence, void *user)
{
    auto *f = static_cast<MemoryFile *>(user);
    const sf_count_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? f->position : f->bytes.size();
    const sf_count_t target = base + offset;
    if (target < 0 || target > f->bytes.size())
        return -1;
    f->position = target;
    return f->position;
}

sf_count_t vioRead(void *ptr, sf_count_t count, void *user)
{
    auto *f = static_cast<MemoryFile *>(user);
    const sf_count_t n = std::min<sf_count_t>(count, f->bytes.size() - f->position);
    if (n <= 0)
        return 0;
    std::memcpy(ptr, f->bytes.constData() + f->position, size_t(n));
    f->position += n;
    return n;
}

sf_count_t vioWrite(const void *, sf_count_t, void *)
{
    return 0;
}

sf_count_t vioTell(void *user)
{
    return static_cast<MemoryFile *>(user)->position;
}

SpeechManager::Conversion failure(const QString &message)
{
    return {{}, SpeechError::makeAudioEngineFailure(message)};
}

} // namespace

SpeechManager::Conversion SpeechManager::convertAudioFileToPCM(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return failure(file.errorString());
    MemoryFile memory{file.readAll(), 0};
    SF_VIRTUAL_IO io{vioLength, vioSeek, vioRead, vioWrite, vioTell};
    SF_INFO info{};
    SNDFILE *sf = sf_open_virtual(&io, SFM_READ, &info, &memory);
    if (!sf)
        return failure(QString::fromUtf8(sf_strerror(nullptr)));
    const auto closer = qScopeGuard([sf] { sf_close(sf); });
    if (info.channels <= 0 || info.samplerate <= 0)
        return failure(QStringLiteral("Failed to create audio converter"));
    if (info.frames <= 0 || info.frames > std::numeric_limits<qsizetype>::max() / info.channels)
        return failure(QStringLiteral("Failed to create source buffer"));

    std::vector<float> interleaved(size_t(info.frames) * size_t(info.channels));
    const sf_count_t read = sf_readf_float(sf, interleaved.data(), info.frames);
    if (read < 0)
        return failure(QString::fromUtf8(sf_strerror(sf)));
    // Down-mix to mono.
    std::vector<float> mono(static_cast<size_t>(read));
    for (sf_count_t i = 0; i < read; ++i) {
        float sum = 0;
        for (int c = 0; c < info.channels; ++c)
            sum += interleaved[size_t(i * info.channels + c)];
        mono[size_t(i)] = sum / float(info.channels);
    }

    const double ratio = double(kSampleRateHz) / double(info.samplerate);
    const double capacity = std::ceil(ratio * double(read)) + 16;
    if (capacity < 0 || capacity > double(std::numeric_limits<quint32>::max()))
        return failure(QStringLiteral("Failed to create output buffer"));
    std::vector<qint16> out(static_cast<size_t>(capacity));
    size_t produced = 0;
    const soxr_io_spec_t ioSpec = soxr_io_spec(SOXR_FLOAT32_I, SOXR_INT16_I);
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
    const soxr_error_t error =
        soxr_oneshot(double(info.samplerate), double(kSampleRateHz), 1, mono.data(), mono.size(), nullptr,
                     out.data(), out.size(), &produced, &ioSpec, &quality, nullptr);
    if (error)
        return failure(QStringLiteral("Conversion failed: ") + QString::fromUtf8(error));
    if (produced == 0)
        return failure(QStringLiteral("Failed to get PCM data"));
    QByteArray pcm(reinterpret_cast<const char *>(out.data()), qsizetype(produced * sizeof(qint16)));
    return {pcm, std::nullopt};
}
