// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/ServerAudioFormat.h"

#include <QList>

#include <array>

namespace {

quint8 at(QByteArrayView bytes, qsizetype i)
{
    return quint8(bytes[i]);
}

// The length of the MPEG layer II or III frame whose header starts `bytes`; nothing for a header that
// is not one (layer I is left out: no speech server sends it, and near-silent PCM looks like it).
std::optional<qsizetype> mpegFrameLength(QByteArrayView bytes)
{
    if (bytes.size() < 4 || at(bytes, 0) != 0xFF || (at(bytes, 1) & 0xE0) != 0xE0)
        return std::nullopt;
    const int version = (at(bytes, 1) >> 3) & 3; // 0: 2.5, 2: 2, 3: 1
    const int layer = (at(bytes, 1) >> 1) & 3;   // 1: III, 2: II
    const int bitrateIndex = at(bytes, 2) >> 4;
    const int rateIndex = (at(bytes, 2) >> 2) & 3;
    if (version == 1 || (layer != 1 && layer != 2) || bitrateIndex == 0 || bitrateIndex == 15 ||
        rateIndex == 3)
        return std::nullopt;
    static constexpr std::array<int, 15> v1l2{0,   32,  48,  56,  64,  80,  96, 112,
                                              128, 160, 192, 224, 256, 320, 384};
    static constexpr std::array<int, 15> v1l3{0,   32,  40,  48,  56,  64,  80, 96,
                                              112, 128, 160, 192, 224, 256, 320};
    static constexpr std::array<int, 15> v2{0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160};
    static constexpr std::array<int, 3> rates{44100, 48000, 32000};
    const bool mpeg1 = version == 3;
    const int kbps = mpeg1 ? (layer == 2 ? v1l2 : v1l3)[size_t(bitrateIndex)] : v2[size_t(bitrateIndex)];
    const int rate = rates[size_t(rateIndex)] >> (mpeg1 ? 0 : version == 2 ? 1 : 2);
    const int samplesPerFrame = layer == 1 && !mpeg1 ? 576 : 1152;
    const int padding = (at(bytes, 2) >> 1) & 1;
    return qsizetype(samplesPerFrame / 8 * kbps * 1000 / rate + padding);
}

// An ADTS header: AAC's own framing, with the same 12-bit sync as MPEG audio but layer bits 00.
bool isAdts(QByteArrayView bytes)
{
    return bytes.size() >= 3 && at(bytes, 0) == 0xFF && (at(bytes, 1) & 0xF6) == 0xF0 &&
           ((at(bytes, 2) >> 2) & 0xF) <= 12;
}

struct Label
{
    ServerAudioFormat::Kind kind = ServerAudioFormat::Pcm;
    QString mediaType;
    int rateHz = 24000;
    int channels = 1;
};

Label readLabel(QByteArrayView contentType)
{
    Label label;
    const QList<QByteArray> parts = contentType.toByteArray().toLower().split(';');
    label.mediaType = QString::fromLatin1(parts.first().trimmed());
    for (qsizetype i = 1; i < parts.size(); ++i) {
        const QByteArray parameter = parts[i].trimmed();
        const qsizetype eq = parameter.indexOf('=');
        if (eq < 0)
            continue;
        bool ok = false;
        const int value = parameter.mid(eq + 1).trimmed().replace('"', "").toInt(&ok);
        if (!ok || value <= 0)
            continue;
        const QByteArray name = parameter.left(eq).trimmed();
        if (name == "rate" && value <= 768000)
            label.rateHz = value;
        else if (name == "channels" && value <= 64)
            label.channels = value;
    }
    static const QList<std::pair<QString, ServerAudioFormat::Kind>> types{
        {QStringLiteral("audio/wav"), ServerAudioFormat::Wav},
        {QStringLiteral("audio/x-wav"), ServerAudioFormat::Wav},
        {QStringLiteral("audio/wave"), ServerAudioFormat::Wav},
        {QStringLiteral("audio/vnd.wave"), ServerAudioFormat::Wav},
        {QStringLiteral("audio/mpeg"), ServerAudioFormat::Mp3},
        {QStringLiteral("audio/mp3"), ServerAudioFormat::Mp3},
        {QStringLiteral("audio/mpeg3"), ServerAudioFormat::Mp3},
        {QStringLiteral("audio/ogg"), ServerAudioFormat::Ogg},
        {QStringLiteral("audio/opus"), ServerAudioFormat::Ogg},
        {QStringLiteral("application/ogg"), ServerAudioFormat::Ogg},
        {QStringLiteral("audio/flac"), ServerAudioFormat::Flac},
        {QStringLiteral("audio/x-flac"), ServerAudioFormat::Flac},
        {QStringLiteral("audio/aac"), ServerAudioFormat::Aac},
        {QStringLiteral("audio/aacp"), ServerAudioFormat::Aac},
        {QStringLiteral("audio/mp4"), ServerAudioFormat::Aac},
    };
    for (const auto &[type, kind] : types) {
        if (label.mediaType == type)
            label.kind = kind;
    }
    // "audio/L16" is big-endian by its definition, but the servers that send it send the little-endian
    // bytes of OpenAI's "pcm": they are taken as those.
    const bool raw = label.mediaType.isEmpty() || label.mediaType == u"audio/pcm" ||
                     label.mediaType == u"audio/l16" || label.mediaType == u"audio/raw" ||
                     label.mediaType == u"audio/x-raw" || label.mediaType == u"application/octet-stream";
    if (label.kind == ServerAudioFormat::Pcm && !raw) {
        label.kind = label.mediaType.startsWith(u"audio/") ? ServerAudioFormat::OtherAudio
                                                           : ServerAudioFormat::NotAudio;
    }
    return label;
}

} // namespace

QString ServerAudioFormat::name() const
{
    switch (kind) {
    case Pcm:
        return QStringLiteral("PCM");
    case Wav:
        return QStringLiteral("WAV");
    case Mp3:
        return QStringLiteral("MP3");
    case Ogg:
        return QStringLiteral("Ogg");
    case Flac:
        return QStringLiteral("FLAC");
    case Aac:
        return QStringLiteral("AAC");
    case OtherAudio:
    case NotAudio:
        break;
    }
    return mediaType;
}

std::optional<ServerAudioFormat> ServerAudioFormat::detect(QByteArrayView first, QByteArrayView contentType,
                                                           bool ended)
{
    const Label label = readLabel(contentType);
    const auto make = [&label](Kind kind) {
        ServerAudioFormat format;
        format.kind = kind;
        format.mediaType = label.mediaType;
        if (kind == Pcm) {
            format.rateHz = label.rateHz;
            format.channels = label.channels;
        }
        return format;
    };
    const bool complete = ended || first.size() >= kMaxSniffBytes;
    // Every signature is decided by 12 bytes except a bare MPEG frame, which the next frame confirms.
    if (first.size() < 12 && !complete)
        return std::nullopt;
    if (first.size() >= 12 && (first.startsWith("RIFF") || first.startsWith("RF64")) &&
        first.sliced(8, 4) == "WAVE")
        return make(Wav);
    if (first.size() >= 10 && first.startsWith("ID3") && at(first, 3) < 0xFF && at(first, 4) < 0xFF)
        return make(Mp3);
    if (first.startsWith("OggS"))
        return make(Ogg);
    if (first.startsWith("fLaC"))
        return make(Flac);
    if (first.startsWith("ADIF") || isAdts(first))
        return make(Aac);
    if (const std::optional<qsizetype> length = mpegFrameLength(first)) {
        // Labelled MPEG, one header is enough; otherwise a second one where the first frame ends tells
        // MP3 from PCM that happens to start with the same bits.
        if (label.kind == Mp3)
            return make(Mp3);
        if (first.size() >= *length + 4)
            return mpegFrameLength(first.sliced(*length)) ? make(Mp3) : make(label.kind);
        if (!complete)
            return std::nullopt;
        return make(Mp3);
    }
    return make(label.kind);
}
