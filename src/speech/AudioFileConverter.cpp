// SPDX-License-Identifier: GPL-3.0-or-later
// Decoding of bundled audio files (voice samples) into the speech format: libsndfile reads the file
// through a virtual I/O layer (so that Qt resources work), libsoxr resamples to 24 kHz.
#include "speech/SndfileMemory.h"
#include "speech/SpeechManager.h"

#include <QFile>
#include <QScopeGuard>

#include <sndfile.h>
#include <soxr.h>

#include <cmath>
#include <limits>
#include <vector>

namespace {

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
    SndfileMemory memory{file.readAll()};
    SF_INFO info{};
    SNDFILE *sf = memory.open(info);
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
    const std::vector<float> mono = downmixed(interleaved.data(), read, info.channels);

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
