// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArrayView>
#include <QString>

#include <optional>

// What a speech server's answer holds, told from its first bytes and its Content-Type. Servers label
// carelessly (MP3 as "audio/L16", WAV as "audio/pcm"), so a recognisable start of the bytes wins over
// the label; the label decides only for bytes that carry no signature of their own (raw PCM, AAC
// without ADTS framing).
struct ServerAudioFormat
{
    enum Kind { Pcm, Wav, Mp3, Ogg, Flac, Aac, OtherAudio, NotAudio };

    Kind kind = Pcm;
    // Raw PCM only: the rate and channels the label gives, else the speech format's.
    int rateHz = 24000;
    int channels = 1;
    // The label's media type, lower case without parameters (for OtherAudio's name).
    QString mediaType;

    // How people know the format: "MP3", "Ogg", "FLAC", "AAC", "WAV", "PCM" or the media type.
    QString name() const;

    // Nothing while the bytes so far cannot tell yet and more may come (`ended` false). Never needs more
    // than kMaxSniffBytes.
    static std::optional<ServerAudioFormat> detect(QByteArrayView first, QByteArrayView contentType,
                                                   bool ended);
    static constexpr qsizetype kMaxSniffBytes = 4096;
};
