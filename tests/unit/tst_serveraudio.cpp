// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/ResponseAudio.h"
#include "speech/ServerAudioFormat.h"

#include "ToneFrequency.h"

#include <QFile>
#include <QTemporaryDir>
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

struct WavShape
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

QByteArray wav(const WavShape &shape)
{
    QByteArray data;
    for (double v : tone(shape.rateHz, shape.channels)) {
        if (shape.isFloat && shape.bits == 32) {
            const float f = float(v);
            quint32 bits;
            std::memcpy(&bits, &f, 4);
            data += le(bits, 4);
        } else if (shape.isFloat) {
            quint64 bits;
            std::memcpy(&bits, &v, 8);
            data += le(bits, 8);
        } else if (shape.bits == 8) {
            data += char(quint8(std::lround(v * 127) + 128));
        } else {
            const double full = std::ldexp(1.0, shape.bits - 1) - 1;
            data += le(quint64(qint64(std::lround(v * full))), shape.bits / 8);
        }
    }
    const int blockAlign = shape.channels * shape.bits / 8;
    QByteArray fmt = le(shape.extensible ? 0xFFFE
                        : shape.isFloat  ? 3
                                         : 1,
                        2) +
                     le(quint64(shape.channels), 2) + le(quint64(shape.rateHz), 4) +
                     le(quint64(shape.rateHz * blockAlign), 4) + le(quint64(blockAlign), 2) +
                     le(quint64(shape.bits), 2);
    if (shape.extensible) {
        fmt += le(22, 2) + le(quint64(shape.bits), 2) + le(4, 4) + le(shape.isFloat ? 3 : 1, 2) +
               QByteArray::fromHex("000000001000800000aa00389b71");
    }
    QByteArray body;
    const QByteArray fmtChunk = chunk("fmt ", fmt);
    const QByteArray dataChunk = chunk("data", data, shape.sizes);
    if (!shape.dataFirst)
        body += fmtChunk;
    if (shape.listBetween)
        body += chunk("LIST", QByteArray("INFOISFT\x05\0\0\0test\0", 17));
    body += dataChunk;
    if (shape.dataFirst)
        body += fmtChunk;
    return "RIFF" + le(shape.sizes.value_or(quint32(body.size() + 4)), 4) + "WAVE" + body;
}

// A compressed file as libsndfile writes it.
QByteArray encoded(int format, int rateHz)
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("tone"));
    SF_INFO info{};
    info.samplerate = rateHz;
    info.channels = 1;
    info.format = format;
    SNDFILE *sf = sf_open(QFile::encodeName(path).constData(), SFM_WRITE, &info);
    if (!sf)
        return {};
    const std::vector<double> samples = tone(rateHz);
    sf_writef_double(sf, samples.data(), sf_count_t(samples.size()));
    sf_close(sf);
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
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
    // What the first bytes and the label say, where playing the whole answer would not show it; the other
    // kinds are told apart by the playback and failure tables below.
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
        using F = ServerAudioFormat;
        const auto row = [](const char *name, const char *type, const QByteArray &first, F::Kind kind,
                            int rateHz = 24000, bool ended = false) {
            QTest::newRow(name) << QByteArray(type) << first << ended << int(kind) << rateHz;
        };
        row("L16 rate", "audio/L16; rate=16000; channels=1", silence, F::Pcm, 16000);
        row("x-wav", "audio/x-wav", riff, F::Wav);
        row("mp3 short, ended", "audio/pcm", mp3.left(20), F::Mp3, 24000, true);
        row("mpeg labelled", "audio/mpeg", mp3.left(12), F::Mp3);
        row("id3", "audio/pcm", QByteArray("ID3\x04\0\0\0\0\0\x10", 10) + silence, F::Mp3);
        row("pcm like mpeg", "audio/pcm", nearSilence, F::Pcm);
        row("ogg", "audio/pcm", QByteArray("OggS") + silence, F::Ogg);
        row("adts", "audio/pcm", QByteArray::fromHex("fff15080") + silence, F::Aac);
    }

    void detection()
    {
        QFETCH(QByteArray, contentType);
        QFETCH(QByteArray, first);
        QFETCH(bool, ended);
        QVERIFY(!first.isEmpty());
        // Fewer bytes than any signature needs say nothing yet.
        QVERIFY(!ServerAudioFormat::detect(first.left(3), contentType, false));
        const std::optional<ServerAudioFormat> format = ServerAudioFormat::detect(first, contentType, ended);
        QVERIFY(format);
        QTEST(int(format->kind), "kind");
        QTEST(format->rateHz, "rateHz");
    }

    void playsAtTheRightPitchAndLength_data()
    {
        QTest::addColumn<QByteArray>("contentType");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<double>("toleranceSeconds");

        const auto row = [](const char *name, const char *type, const QByteArray &body,
                            double tolerance = 0.01) {
            QTest::newRow(name) << QByteArray(type) << body << tolerance;
        };
        row("pcm 22050", "audio/pcm;rate=22050", pcm(22050));
        row("pcm 16000", "audio/L16;rate=16000", pcm(16000));
        row("wav 16-bit", "audio/wav", wav({}));
        row("wav streamed", "audio/wav", wav({.sizes = 0xFFFFFFFF}));
        row("wav sizes 0", "audio/pcm", wav({.rateHz = 22050, .sizes = 0}));
        row("wav 8-bit", "audio/wav", wav({.bits = 8}));
        row("wav 24-bit", "audio/wav", wav({.rateHz = 44100, .bits = 24}));
        row("wav 32-bit", "audio/wav", wav({.bits = 32}));
        row("wav stereo 48k", "audio/wav", wav({.rateHz = 48000, .channels = 2}));
        row("wav float", "audio/wav", wav({.bits = 32, .isFloat = true}));
        row("wav double ext", "audio/wav", wav({.bits = 64, .isFloat = true, .extensible = true}));
        row("wav list between", "audio/wav", wav({.listBetween = true}));
        row("wav data first", "audio/wav", wav({.dataFirst = true}));
        // Encoders pad the start and the end of a compressed stream.
        row("mp3 as L16", "audio/L16", encoded(SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III, 24000), 0.1);
        row("mp3 44.1k", "audio/mpeg", encoded(SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III, 44100), 0.1);
        row("vorbis", "audio/ogg", encoded(SF_FORMAT_OGG | SF_FORMAT_VORBIS, 24000), 0.1);
        row("opus", "audio/ogg", encoded(SF_FORMAT_OGG | SF_FORMAT_OPUS, 24000), 0.1);
        row("flac", "audio/flac", encoded(SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 22050));
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
            const double hz = toneFrequency(samples, 24000.0);
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

        const auto row = [](const char *name, const char *type, const QByteArray &body,
                            const char *failure = "The server sent no audio.") {
            QTest::newRow(name) << QByteArray(type) << body << QString::fromUtf8(failure);
        };
        row("empty", "audio/pcm", QByteArray());
        row("one byte", "audio/pcm", QByteArray("\x01", 1));
        row("json", "application/json", QByteArray("{\"detail\":\"boom\"}"));
        row("wav header only", "audio/wav", wav({}).left(44));
        row("wav cut in header", "audio/wav", wav({}).left(30));
        row("aac", "audio/aac", QByteArray(400, '\x21'),
            "The server sent AAC audio, which Quillvox cannot play.");
        row("webm", "audio/webm", QByteArray(400, '\x21'),
            "The server sent audio/webm audio, which Quillvox cannot play.");
        QByteArray alaw = wav({});
        alaw[20] = 6;
        row("wav a-law", "audio/wav", alaw,
            "The server sent WAV with 16-bit samples of encoding 6, which Quillvox cannot play.");
        row("flac garbage", "audio/flac", QByteArray("fLaC") + QByteArray(40000, '\x21'),
            "The server sent FLAC audio that could not be played: the FLAC stream could not be opened.");
    }

    void unplayableAnswersSayWhy()
    {
        QFETCH(QByteArray, contentType);
        QFETCH(QByteArray, body);
        const Played played = play(contentType, body, 100);
        QTEST(played.failure.value_or(QString()), "failure");
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
