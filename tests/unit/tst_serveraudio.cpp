// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/ResponseAudio.h"
#include "speech/ServerAudioFormat.h"

#include <QTest>
#include <QtEndian>

#include <sndfile.h>

#include <cmath>
#include <cstring>
#include <numbers>
#include <vector>

namespace {

constexpr double kToneHz = 440.0;
constexpr double kToneAmplitude = 0.5;
constexpr double kToneSeconds = 0.6;

std::vector<double> tone(int rateHz, int channels = 1)
{
    const auto frames = size_t(std::lround(kToneSeconds * rateHz));
    std::vector<double> samples(frames * size_t(channels));
    for (size_t i = 0; i < frames; ++i) {
        for (int c = 0; c < channels; ++c)
            samples[i * size_t(channels) + size_t(c)] =
                kToneAmplitude * std::sin(2 * std::numbers::pi * kToneHz * double(i) / rateHz);
    }
    return samples;
}

QByteArray le(quint64 value, int bytes)
{
    QByteArray out(bytes, '\0');
    for (int i = 0; i < bytes; ++i)
        out[i] = char((value >> (8 * i)) & 0xFF);
    return out;
}

QByteArray chunk(const char *id, const QByteArray &payload, std::optional<quint32> size = std::nullopt)
{
    QByteArray out(id, 4);
    out += le(size.value_or(quint32(payload.size())), 4) + payload;
    if (payload.size() % 2)
        out += '\0';
    return out;
}

struct WavSpec
{
    int rateHz = 24000;
    int channels = 1;
    int bits = 16;
    bool isFloat = false;
    bool extensible = false;
    bool dataFirst = false;
    bool listBetween = false;
    std::optional<quint32> sizes = std::nullopt; // what a streaming writer puts for RIFF and data sizes
};

QByteArray wav(const WavSpec &spec)
{
    QByteArray data;
    for (double v : tone(spec.rateHz, spec.channels)) {
        if (spec.isFloat && spec.bits == 32) {
            const float f = float(v);
            quint32 bits;
            std::memcpy(&bits, &f, 4);
            data += le(bits, 4);
        } else if (spec.isFloat) {
            quint64 bits;
            std::memcpy(&bits, &v, 8);
            data += le(bits, 8);
        } else if (spec.bits == 8) {
            data += char(quint8(std::lround(v * 127) + 128));
        } else {
            const double full = std::ldexp(1.0, spec.bits - 1) - 1;
            data += le(quint64(qint64(std::lround(v * full))), spec.bits / 8);
        }
    }
    const int blockAlign = spec.channels * spec.bits / 8;
    QByteArray fmt = le(spec.extensible ? 0xFFFE
                        : spec.isFloat  ? 3
                                        : 1,
                        2) +
                     le(quint64(spec.channels), 2) + le(quint64(spec.rateHz), 4) +
                     le(quint64(spec.rateHz * blockAlign), 4) + le(quint64(blockAlign), 2) +
                     le(quint64(spec.bits), 2);
    if (spec.extensible) {
        fmt += le(22, 2) + le(quint64(spec.bits), 2) + le(4, 4) + le(spec.isFloat ? 3 : 1, 2) +
               QByteArray::fromHex("000000001000800000aa00389b71");
    }
    QByteArray body;
    const QByteArray fmtChunk = chunk("fmt ", fmt);
    const QByteArray dataChunk = chunk("data", data, spec.sizes);
    if (!spec.dataFirst)
        body += fmtChunk;
    if (spec.listBetween)
        body += chunk("LIST", QByteArray("INFOISFT\x05\0\0\0test\0", 17));
    body += dataChunk;
    if (spec.dataFirst)
        body += fmtChunk;
    return "RIFF" + le(spec.sizes.value_or(quint32(body.size() + 4)), 4) + "WAVE" + body;
}

struct MemoryFile
{
    QByteArray bytes;
    sf_count_t position = 0;
};

// A compressed file as libsndfile writes it, in memory.
QByteArray encoded(int format, int rateHz)
{
    static SF_VIRTUAL_IO io{
        [](void *u) -> sf_count_t { return static_cast<MemoryFile *>(u)->bytes.size(); },
        [](sf_count_t offset, int whence, void *u) -> sf_count_t {
            auto *f = static_cast<MemoryFile *>(u);
            f->position = (whence == SEEK_SET   ? 0
                           : whence == SEEK_CUR ? f->position
                                                : f->bytes.size()) +
                          offset;
            return f->position;
        },
        [](void *ptr, sf_count_t count, void *u) -> sf_count_t {
            auto *f = static_cast<MemoryFile *>(u);
            const sf_count_t n = std::clamp<sf_count_t>(f->bytes.size() - f->position, 0, count);
            std::memcpy(ptr, f->bytes.constData() + f->position, size_t(n));
            f->position += n;
            return n;
        },
        [](const void *ptr, sf_count_t count, void *u) -> sf_count_t {
            auto *f = static_cast<MemoryFile *>(u);
            if (f->bytes.size() < f->position + count)
                f->bytes.resize(qsizetype(f->position + count));
            std::memcpy(f->bytes.data() + f->position, ptr, size_t(count));
            f->position += count;
            return count;
        },
        [](void *u) -> sf_count_t { return static_cast<MemoryFile *>(u)->position; },
    };
    MemoryFile file;
    SF_INFO info{};
    info.samplerate = rateHz;
    info.channels = 1;
    info.format = format;
    SNDFILE *sf = sf_open_virtual(&io, SFM_WRITE, &info, &file);
    if (!sf)
        return {};
    const std::vector<double> samples = tone(rateHz);
    sf_writef_double(sf, samples.data(), sf_count_t(samples.size()));
    sf_close(sf);
    return file.bytes;
}

struct Played
{
    QByteArray pcm;
    std::optional<QString> failure;
};

Played play(const QByteArray &contentType, const QByteArray &body, qsizetype pieceBytes)
{
    ResponseAudio audio(contentType);
    Played played;
    for (qsizetype at = 0; at < body.size(); at += pieceBytes)
        played.pcm += audio.push(QByteArrayView(body).sliced(at, std::min(pieceBytes, body.size() - at)));
    played.pcm += audio.finish();
    played.failure = audio.failure();
    return played;
}

std::vector<double> samplesOf(const QByteArray &pcm)
{
    std::vector<double> out(size_t(pcm.size() / 2));
    for (size_t i = 0; i < out.size(); ++i)
        out[i] = qFromLittleEndian<qint16>(pcm.constData() + 2 * i) / 32768.0;
    return out;
}

// The tone's frequency from the first and last upward zero crossing (interpolated) of the whole clip.
double frequencyOf(const std::vector<double> &s)
{
    std::optional<double> first;
    double last = 0;
    int crossings = 0;
    for (size_t i = 1; i < s.size(); ++i) {
        if (s[i - 1] < 0 && s[i] >= 0) {
            const double at = double(i - 1) + s[i - 1] / (s[i - 1] - s[i]);
            if (!first)
                first = at;
            else
                ++crossings;
            last = at;
        }
    }
    return first && crossings > 0 ? crossings * 24000.0 / (last - *first) : 0;
}

double peak(const std::vector<double> &s, size_t from, size_t to)
{
    double p = 0;
    for (size_t i = from; i < std::min(to, s.size()); ++i)
        p = std::max(p, std::abs(s[i]));
    return p;
}

} // namespace

// A chosen server's answer, whatever it holds, comes out as the speech format at the right pitch and
// length, or fails with words that name what was wrong.
class TestServerAudio : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void detection_data()
    {
        QTest::addColumn<QByteArray>("contentType");
        QTest::addColumn<QByteArray>("first");
        QTest::addColumn<bool>("ended");
        QTest::addColumn<int>("kind");
        QTest::addColumn<int>("rateHz");

        const QByteArray riff = wav({}).left(44);
        const QByteArray mp3 = encoded(SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III, 24000);
        const QByteArray silence(64, '\0');
        QByteArray nearSilence; // PCM that starts like an MPEG header, with no second one behind it
        nearSilence += QByteArray::fromHex("fffb1000") + QByteArray(4000, '\x01');
        QTest::newRow("pcm") << QByteArray("audio/pcm") << silence << false << int(ServerAudioFormat::Pcm)
                             << 24000;
        QTest::newRow("pcm rate") << QByteArray("audio/pcm;rate=22050") << silence << false
                                  << int(ServerAudioFormat::Pcm) << 22050;
        QTest::newRow("L16 rate") << QByteArray("audio/L16; rate=16000; channels=1") << silence << false
                                  << int(ServerAudioFormat::Pcm) << 16000;
        QTest::newRow("no label") << QByteArray() << silence << false << int(ServerAudioFormat::Pcm) << 24000;
        QTest::newRow("wav labelled pcm")
            << QByteArray("audio/pcm") << riff << false << int(ServerAudioFormat::Wav) << 24000;
        QTest::newRow("x-wav") << QByteArray("audio/x-wav") << riff << false << int(ServerAudioFormat::Wav)
                               << 24000;
        QTest::newRow("mp3 labelled L16") << QByteArray("audio/L16;rate=24000") << mp3.left(4096) << false
                                          << int(ServerAudioFormat::Mp3) << 24000;
        QTest::newRow("mp3 short, ended")
            << QByteArray("audio/pcm") << mp3.left(20) << true << int(ServerAudioFormat::Mp3) << 24000;
        QTest::newRow("mpeg labelled")
            << QByteArray("audio/mpeg") << mp3.left(12) << false << int(ServerAudioFormat::Mp3) << 24000;
        QTest::newRow("id3") << QByteArray("audio/pcm") << QByteArray("ID3\x04\0\0\0\0\0\x10", 10) + silence
                             << false << int(ServerAudioFormat::Mp3) << 24000;
        QTest::newRow("pcm like mpeg")
            << QByteArray("audio/pcm") << nearSilence << false << int(ServerAudioFormat::Pcm) << 24000;
        QTest::newRow("ogg") << QByteArray("audio/pcm") << QByteArray("OggS") + silence << false
                             << int(ServerAudioFormat::Ogg) << 24000;
        QTest::newRow("flac") << QByteArray("audio/flac") << QByteArray("fLaC") + silence << false
                              << int(ServerAudioFormat::Flac) << 24000;
        QTest::newRow("adts") << QByteArray("audio/pcm") << QByteArray::fromHex("fff15080") + silence << false
                              << int(ServerAudioFormat::Aac) << 24000;
        QTest::newRow("aac label") << QByteArray("audio/aac") << silence << false
                                   << int(ServerAudioFormat::Aac) << 24000;
        QTest::newRow("json") << QByteArray("application/json") << QByteArray("{\"error\":\"x\"} ......")
                              << false << int(ServerAudioFormat::NotAudio) << 24000;
        QTest::newRow("webm") << QByteArray("audio/webm") << silence << false
                              << int(ServerAudioFormat::OtherAudio) << 24000;
    }

    void detection()
    {
        QFETCH(QByteArray, contentType);
        QFETCH(QByteArray, first);
        QFETCH(bool, ended);
        QFETCH(int, kind);
        QFETCH(int, rateHz);
        QVERIFY(!first.isEmpty());
        // Fewer bytes than any signature needs say nothing yet.
        QVERIFY(!ServerAudioFormat::detect(first.left(3), contentType, false));
        const std::optional<ServerAudioFormat> format = ServerAudioFormat::detect(first, contentType, ended);
        QVERIFY(format);
        QCOMPARE(int(format->kind), kind);
        QCOMPARE(format->rateHz, rateHz);
    }

    void playsAtTheRightPitchAndLength_data()
    {
        QTest::addColumn<QByteArray>("contentType");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<double>("toleranceSeconds");

        QTest::newRow("pcm 22050") << QByteArray("audio/pcm;rate=22050") << pcm(22050) << 0.01;
        QTest::newRow("pcm 16000") << QByteArray("audio/L16;rate=16000") << pcm(16000) << 0.01;
        QTest::newRow("wav 16-bit") << QByteArray("audio/wav") << wav({}) << 0.01;
        QTest::newRow("wav streamed") << QByteArray("audio/wav") << wav({.sizes = 0xFFFFFFFF}) << 0.01;
        QTest::newRow("wav sizes 0") << QByteArray("audio/pcm") << wav({.rateHz = 22050, .sizes = 0}) << 0.01;
        QTest::newRow("wav 8-bit") << QByteArray("audio/wav") << wav({.bits = 8}) << 0.01;
        QTest::newRow("wav 24-bit") << QByteArray("audio/wav") << wav({.rateHz = 44100, .bits = 24}) << 0.01;
        QTest::newRow("wav 32-bit") << QByteArray("audio/wav") << wav({.bits = 32}) << 0.01;
        QTest::newRow("wav stereo 48k")
            << QByteArray("audio/wav") << wav({.rateHz = 48000, .channels = 2}) << 0.01;
        QTest::newRow("wav float") << QByteArray("audio/wav") << wav({.bits = 32, .isFloat = true}) << 0.01;
        QTest::newRow("wav double ext")
            << QByteArray("audio/wav") << wav({.bits = 64, .isFloat = true, .extensible = true}) << 0.01;
        QTest::newRow("wav list between") << QByteArray("audio/wav") << wav({.listBetween = true}) << 0.01;
        QTest::newRow("wav data first") << QByteArray("audio/wav") << wav({.dataFirst = true}) << 0.01;
        // Encoders pad the start and the end of a compressed stream.
        QTest::newRow("mp3 as L16") << QByteArray("audio/L16")
                                    << encoded(SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III, 24000) << 0.1;
        QTest::newRow("mp3 44.1k") << QByteArray("audio/mpeg")
                                   << encoded(SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III, 44100) << 0.1;
        QTest::newRow("vorbis") << QByteArray("audio/ogg") << encoded(SF_FORMAT_OGG | SF_FORMAT_VORBIS, 24000)
                                << 0.1;
        QTest::newRow("opus") << QByteArray("audio/ogg") << encoded(SF_FORMAT_OGG | SF_FORMAT_OPUS, 24000)
                              << 0.1;
        QTest::newRow("flac") << QByteArray("audio/flac") << encoded(SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 22050)
                              << 0.01;
    }

    void playsAtTheRightPitchAndLength()
    {
        QFETCH(QByteArray, contentType);
        QFETCH(QByteArray, body);
        QFETCH(double, toleranceSeconds);
        QVERIFY(!body.isEmpty());
        for (const qsizetype pieceBytes : {qsizetype(1), qsizetype(997), body.size()}) {
            const Played played = play(contentType, body, pieceBytes);
            QVERIFY2(!played.failure, qPrintable(played.failure.value_or(QString())));
            const std::vector<double> samples = samplesOf(played.pcm);
            const double seconds = double(samples.size()) / 24000;
            QVERIFY2(std::abs(seconds - kToneSeconds) <= toleranceSeconds,
                     qPrintable(QString::number(seconds) + u" in pieces of " + QString::number(pieceBytes)));
            const double hz = frequencyOf(samples);
            QVERIFY2(std::abs(hz - kToneHz) <= kToneHz * 0.01, qPrintable(QString::number(hz)));
            // No header played as audio: the first 3 ms stay at the tone's own level.
            QVERIFY(peak(samples, 0, 72) <= kToneAmplitude * 1.1);
            QVERIFY(peak(samples, 0, samples.size()) >= kToneAmplitude * 0.9);
        }
    }

    void speechFormatPassesThroughUntouched()
    {
        QByteArray body = pcm(24000);
        body.append('\x7f'); // an odd byte too
        for (const QByteArray &label : {QByteArray("audio/pcm"), QByteArray()})
            QCOMPARE(play(label, body, 333).pcm, body);
    }

    void unplayableAnswersSayWhy_data()
    {
        QTest::addColumn<QByteArray>("contentType");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("failure");

        const QString noAudio = QStringLiteral("The server sent no audio.");
        QTest::newRow("empty") << QByteArray("audio/pcm") << QByteArray() << noAudio;
        QTest::newRow("one byte") << QByteArray("audio/pcm") << QByteArray("\x01", 1) << noAudio;
        QTest::newRow("json") << QByteArray("application/json") << QByteArray("{\"detail\":\"boom\"}")
                              << noAudio;
        QTest::newRow("wav header only") << QByteArray("audio/wav") << wav({}).left(44) << noAudio;
        QTest::newRow("wav cut in header") << QByteArray("audio/wav") << wav({}).left(30) << noAudio;
        QTest::newRow("aac") << QByteArray("audio/aac") << QByteArray(400, '\x21')
                             << "The server sent AAC audio, which Quillvox cannot play.";
        QTest::newRow("webm") << QByteArray("audio/webm") << QByteArray(400, '\x21')
                              << "The server sent audio/webm audio, which Quillvox cannot play.";
        QByteArray alaw = wav({});
        alaw[20] = 6;
        QTest::newRow("wav a-law") << QByteArray("audio/wav") << alaw
                                   << "The server sent WAV with 16-bit samples of encoding 6, which Quillvox "
                                      "cannot play.";
        QTest::newRow("flac garbage")
            << QByteArray("audio/flac") << QByteArray("fLaC") + QByteArray(40000, '\x21')
            << "The server sent FLAC audio that could not be played: the FLAC "
               "stream could not be opened.";
    }

    void unplayableAnswersSayWhy()
    {
        QFETCH(QByteArray, contentType);
        QFETCH(QByteArray, body);
        QFETCH(QString, failure);
        const Played played = play(contentType, body, 100);
        QCOMPARE(played.failure.value_or(QString()), failure);
        QVERIFY(played.pcm.isEmpty());
    }

private:
    static QByteArray pcm(int rateHz)
    {
        QByteArray out;
        for (double v : tone(rateHz))
            out += le(quint64(qint64(std::lround(v * 32767))), 2);
        return out;
    }
};

QTEST_GUILESS_MAIN(TestServerAudio)
#include "tst_serveraudio.moc"
