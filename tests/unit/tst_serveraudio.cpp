// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/HttpResponseParser.h"
#include "speech/ResponseAudio.h"
#include "speech/ServerAudioFormat.h"
#include "speech/ServerCatalog.h"
#include "speech/ServerErrorBody.h"

#include "ToneFrequency.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>
#include <QtEndian>

#include <sndfile.h>

#include <bit>
#include <cmath>
#include <numbers>
#include <vector>

namespace {

constexpr double kToneHz = 440.0, kToneAmplitude = 0.5, kToneSeconds = 0.6;

std::vector<double> tone(int rateHz, int channels = 1)
{
    std::vector<double> samples;
    for (long i = 0; i < std::lround(kToneSeconds * rateHz); ++i)
        samples.insert(samples.end(), size_t(channels),
                       kToneAmplitude * std::sin(2 * std::numbers::pi * kToneHz * double(i) / rateHz));
    return samples;
}

QByteArray le(quint64 value, int bytes)
{
    const quint64 little = qToLittleEndian(value);
    return QByteArray(reinterpret_cast<const char *>(&little), bytes);
}

QByteArray chunk(const char *id, const QByteArray &payload, std::optional<quint32> size = std::nullopt)
{
    return QByteArray(id, 4) + le(size.value_or(quint32(payload.size())), 4) + payload +
           QByteArray(payload.size() % 2, '\0');
}

struct WavShape
{
    int rateHz = 24000, channels = 1, bits = 16;
    bool isFloat = false, extensible = false, dataFirst = false, listBetween = false;
    std::optional<quint32> sizes = std::nullopt; // what a streaming writer puts for RIFF and data sizes
};

QByteArray wav(const WavShape &s)
{
    QByteArray data;
    for (double v : tone(s.rateHz, s.channels)) {
        if (s.isFloat)
            data +=
                le(s.bits == 32 ? std::bit_cast<quint32>(float(v)) : std::bit_cast<quint64>(v), s.bits / 8);
        else if (s.bits == 8)
            data += char(quint8(std::lround(v * 127) + 128));
        else
            data += le(quint64(std::lround(v * (std::ldexp(1.0, s.bits - 1) - 1))), s.bits / 8);
    }
    const int blockAlign = s.channels * s.bits / 8;
    QByteArray fmt = le(s.extensible ? 0xFFFE : (s.isFloat ? 3 : 1), 2) + le(quint64(s.channels), 2) +
                     le(quint64(s.rateHz), 4) + le(quint64(s.rateHz * blockAlign), 4) +
                     le(quint64(blockAlign), 2) + le(quint64(s.bits), 2);
    if (s.extensible)
        fmt += le(22, 2) + le(quint64(s.bits), 2) + le(4, 4) + le(s.isFloat ? 3 : 1, 2) +
               QByteArray::fromHex("000000001000800000aa00389b71");
    const QByteArray fmtChunk = chunk("fmt ", fmt);
    QByteArray body = s.dataFirst ? QByteArray() : fmtChunk;
    if (s.listBetween)
        body += chunk("LIST", QByteArray("INFOISFT\x05\0\0\0test\0", 17));
    body += chunk("data", data, s.sizes) + (s.dataFirst ? fmtChunk : QByteArray());
    return "RIFF" + le(s.sizes.value_or(quint32(body.size() + 4)), 4) + "WAVE" + body;
}

const auto pcm = [](int rateHz) { return wav({.rateHz = rateHz}).mid(44); };

// A compressed file as libsndfile writes it.
QByteArray encoded(int format, int rateHz)
{
    QTemporaryDir dir;
    const QByteArray path = QFile::encodeName(dir.filePath(QStringLiteral("tone")));
    SF_INFO info{0, rateHz, 1, format, 0, 0}; // frames, rate, channels, format, sections, seekable
    if (SNDFILE *sf = sf_open(path.constData(), SFM_WRITE, &info)) {
        const std::vector<double> samples = tone(rateHz);
        sf_writef_double(sf, samples.data(), sf_count_t(samples.size()));
        sf_close(sf);
    }
    QFile file(dir.filePath(QStringLiteral("tone")));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

// A chosen server's answer, whatever it holds, comes out as the speech format at the right pitch and
// length, or fails with words that name what was wrong; what it says besides audio, its reasons for
// refusing and its voices and models, is read as it means it.
class TestServerAudio : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // What the first bytes and the label say, where playing the whole answer would not show it.
    void detection_data()
    {
        QTest::addColumn<QByteArray>("contentType");
        QTest::addColumn<QByteArray>("first");
        QTest::addColumn<bool>("ended");
        QTest::addColumn<int>("kind");
        QTest::addColumn<int>("rateHz");
        const QByteArray mp3 = encoded(SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III, 24000), silence(64, '\0');
        using F = ServerAudioFormat;
        const auto row = [](const char *name, const char *type, const QByteArray &first, F::Kind kind,
                            int rateHz = 24000, bool ended = false) {
            QTest::newRow(name) << QByteArray(type) << first << ended << int(kind) << rateHz;
        };
        row("mp3 short, ended", "audio/pcm", mp3.left(20), F::Mp3, 24000, true);
        row("mpeg labelled", "audio/mpeg", mp3.left(12), F::Mp3);
        row("id3", "audio/pcm", QByteArray("ID3\x04\0\0\0\0\0\x10", 10) + silence, F::Mp3);
        // PCM that starts like an MPEG header, with no second one behind it.
        row("pcm like mpeg", "audio/pcm", QByteArray::fromHex("fffb1000") + QByteArray(4000, '\x01'), F::Pcm);
        row("ogg", "audio/pcm", QByteArray("OggS") + silence, F::Ogg);
        row("adts", "audio/pcm", QByteArray::fromHex("fff15080") + silence, F::Aac);
    }

    void detection()
    {
        QFETCH(QByteArray, contentType);
        QFETCH(QByteArray, first);
        QFETCH(bool, ended);
        QVERIFY(!ServerAudioFormat::detect(first.left(3), contentType, false)); // too few bytes to tell
        const std::optional<ServerAudioFormat> format = ServerAudioFormat::detect(first, contentType, ended);
        QVERIFY(format);
        QTEST(int(format->kind), "kind");
        QTEST(format->rateHz, "rateHz");
    }

    // Every answer at once, byte by byte and in odd pieces: it plays, or fails saying why with nothing out.
    void answers_data()
    {
        QTest::addColumn<QByteArray>("contentType");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<double>("toleranceSeconds"); // 0: the speech format itself, passed through untouched
        QTest::addColumn<QString>("failure");
        const auto row = [](const char *name, const char *type, const QByteArray &body,
                            double tolerance = 0.01) {
            QTest::newRow(name) << QByteArray(type) << body << tolerance << QString();
        };
        const auto fails = [](const char *name, const char *type, const QByteArray &body,
                              const char *failure = "The server sent no audio.") {
            QTest::newRow(name) << QByteArray(type) << body << 0.0 << QString::fromUtf8(failure);
        };
        const int mp3 = SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III;
        row("speech format", "audio/pcm", pcm(24000) + '\x7f', 0); // an odd byte too
        row("speech format unlabelled", "", pcm(24000) + '\x7f', 0);
        row("pcm 22050", "audio/pcm;rate=22050", pcm(22050));
        row("pcm 16000", "audio/L16; rate=16000; channels=1", pcm(16000));
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
        row("mp3 as L16", "audio/L16", encoded(mp3, 24000), 0.1);
        row("mp3 44.1k", "audio/mpeg", encoded(mp3, 44100), 0.1);
        row("vorbis", "audio/ogg", encoded(SF_FORMAT_OGG | SF_FORMAT_VORBIS, 24000), 0.1);
        row("opus", "audio/ogg", encoded(SF_FORMAT_OGG | SF_FORMAT_OPUS, 24000), 0.1);
        row("flac", "audio/flac", encoded(SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 22050));
        QByteArray alaw = wav({});
        alaw[20] = 6;
        const QByteArray noise(400, '\x21');
        fails("empty", "audio/pcm", QByteArray());
        fails("one byte", "audio/pcm", QByteArray("\x01", 1));
        fails("json", "application/json", QByteArray("{\"detail\":\"boom\"}"));
        fails("wav header only", "audio/wav", wav({}).left(44));
        fails("wav cut in header", "audio/wav", wav({}).left(30));
        fails("aac", "audio/aac", noise, "The server sent AAC audio, which Quillvox cannot play.");
        fails("webm", "audio/webm", noise, "The server sent audio/webm audio, which Quillvox cannot play.");
        fails("wav a-law", "audio/wav", alaw,
              "The server sent WAV with 16-bit samples of encoding 6, which Quillvox cannot play.");
        fails("flac garbage", "audio/flac", QByteArray("fLaC") + QByteArray(40000, '\x21'),
              "The server sent FLAC audio that could not be played: the FLAC stream could not be opened.");
    }

    void answers()
    {
        QFETCH(QByteArray, contentType);
        QFETCH(QByteArray, body);
        QFETCH(double, toleranceSeconds);
        QFETCH(QString, failure);
        for (const qsizetype pieceBytes : {qsizetype(1), qsizetype(997), qMax(body.size(), 1)}) {
            ResponseAudio audio(contentType);
            QByteArray out;
            for (qsizetype at = 0; at < body.size(); at += pieceBytes)
                out += audio.push(QByteArrayView(body).sliced(at, std::min(pieceBytes, body.size() - at)));
            out += audio.finish();
            QCOMPARE(audio.failure().value_or(QString()), failure);
            if (!failure.isEmpty() || toleranceSeconds == 0) {
                QCOMPARE(out, failure.isEmpty() ? body : QByteArray());
                continue;
            }
            std::vector<double> samples(size_t(out.size() / 2));
            for (size_t i = 0; i < samples.size(); ++i)
                samples[i] = qFromLittleEndian<qint16>(out.constData() + 2 * i) / 32768.0;
            const double seconds = double(samples.size()) / 24000;
            QVERIFY2(std::abs(seconds - kToneSeconds) <= toleranceSeconds,
                     qPrintable(QString::number(seconds) + u" in pieces of " + QString::number(pieceBytes)));
            const double hz = toneFrequency(samples, 24000.0);
            QVERIFY2(std::abs(hz - kToneHz) <= kToneHz * 0.01, qPrintable(QString::number(hz)));
            double peak = 0, head = 0; // no header played as audio: the first 3 ms stay at the tone's level
            for (size_t i = 0; i < samples.size(); ++i) {
                peak = std::max(peak, std::abs(samples[i]));
                head = i < 72 ? peak : head;
            }
            QVERIFY(head <= kToneAmplitude * 1.1 && peak >= kToneAmplitude * 0.9);
        }
    }

    void errorMessages_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("message"); // null: none, the reason phrase stays

        const auto row = [](const char *name, const QByteArray &body, const QString &message) {
            QTest::newRow(name) << body << message;
        };
        row("openai", R"({"error":{"message":"Voice 'marin' not found.","type":"x"}})",
            "Voice 'marin' not found.");
        row("error text", R"({"error":"Model is not installed locally."})",
            "Model is not installed locally.");
        row("detail text", R"({"detail":"Voice 'marin' not found. Available voices: af_heart"})",
            "Voice 'marin' not found. Available voices: af_heart");
        row("detail message", R"({"detail":{"error":"validation_error","message":"Input too long"}})",
            "Input too long");
        row("detail error message", R"({"detail":{"error":{"message":"Text exceeds 3000 characters"}}})",
            "Text exceeds 3000 characters");
        row("detail list",
            R"({"detail":[{"loc":["body","input"],"msg":"String should have at most 3000 characters"},{"msg":"Field required"}]})",
            "String should have at most 3000 characters; Field required");
        row("message", R"({"message":"  Synthesis\n failed  "})", "Synthesis failed");
        row("html", "<html><body><h1>502 Bad Gateway</h1></body></html>", {});
        row("empty", {}, {});
        row("no known member", R"({"status":"error"})", {});
        row("long", R"({"detail":")" + QByteArray(300, 'x') + R"("})", QString(199, u'x') + u'…');
        row("huge", R"({"detail":")" + QByteArray(70000, 'x') + R"("})", {});
    }

    void errorMessages()
    {
        QFETCH(QByteArray, body);
        QFETCH(QString, message);
        QCOMPARE(ServerErrorBody::message(body).value_or(QString()), message);
    }

    void requestSize_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("message");
        QTest::addColumn<bool>("halves");

        QTest::newRow("413") << 413 << QString() << true;
        QTest::newRow("422 pydantic") << 422 << "String should have at most 3000 characters" << true;
        QTest::newRow("422 too long") << 422 << "Text too long, max 1000" << true;
        QTest::newRow("422 other") << 422 << "Field required" << false;
        QTest::newRow("400 length") << 400 << "Input too long" << false;
    }

    void requestSize()
    {
        QFETCH(int, status);
        QFETCH(QString, message);
        QFETCH(bool, halves);
        QCOMPARE(ServerErrorBody::refusesInputLength(status, message), halves);
        QCOMPARE(ServerErrorBody::halvedLimit(4096), 2048);
        QCOMPARE(ServerErrorBody::halvedLimit(300), ServerErrorBody::kMinInputChars);
    }

    // The voices and models a list holds, and the model chosen from them when none is set.
    void lists_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QStringList>("voices");
        QTest::addColumn<QStringList>("models");
        QTest::addColumn<QString>("defaultModel");
        const auto row = [](const char *name, const QByteArray &json, const QStringList &voices,
                            const QStringList &models, const char *defaultModel = "tts-1") {
            QTest::newRow(name) << json << voices << models << QString::fromUtf8(defaultModel);
        };
        row("names", R"({"voices":["af_heart","am_adam","af_heart"]})", {"af_heart", "am_adam"}, {});
        row("objects", R"({"voices":[{"name":"tara","gender":"f"},{"id":"leo"}]})", {"tara", "leo"}, {});
        const QStringList listed{"whisper-1", "kokoro", "tts-1-hd"};
        row("openai list, first speech model",
            R"({"object":"list","data":[{"id":"whisper-1"},{"id":"kokoro"},{"id":"tts-1-hd"}]})", listed,
            listed, "kokoro");
        row("bare array", R"(["alloy",{"voice_id":"en-US-AvaNeural"}])", {"alloy", "en-US-AvaNeural"},
            {"alloy"});
        row("models member", R"({"models":[{"model":"piper"}]})", {}, {"piper"}, "piper");
        row("no speech model", R"({"data":[{"id":"whisper-1"},{"id":"llama3"}]})", {"whisper-1", "llama3"},
            {"whisper-1", "llama3"});
        row("dated name skipped", R"({"data":[{"id":"gpt-4o-mini-tts-2025-12-15"},{"id":"tts-1-hd"}]})",
            {"gpt-4o-mini-tts-2025-12-15", "tts-1-hd"}, {"gpt-4o-mini-tts-2025-12-15", "tts-1-hd"},
            "tts-1-hd");
        row("not json", "Not Found", {}, {});
    }

    void lists()
    {
        QFETCH(QByteArray, json);
        QFETCH(QStringList, models);
        QTEST(ServerCatalog::voices(json), "voices");
        QCOMPARE(ServerCatalog::models(json), models);
        QTEST(ServerCatalog::defaultModel(models), "defaultModel");
    }
    // A response as it comes off the wire: its status, a header, the body taken out of its framing, and
    // how it stands once the connection closes (empty: whole; else a word of the reason). Fed at once and
    // a byte at a time, with the same outcome.
    void httpFraming_data()
    {
        QTest::addColumn<QByteArray>("wire");
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("contentType");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("failure");
        const auto row = [](const char *name, const QByteArray &wire, int status, const QByteArray &body,
                            const char *failure = "", const QByteArray &contentType = "audio/pcm") {
            QTest::newRow(name) << wire << status << contentType << body << QString::fromUtf8(failure);
        };
        const QByteArray ok = "HTTP/1.1 200 OK\r\nContent-Type: audio/pcm\r\n";
        row("length, then talk ignored", ok + "Content-Length: 5\r\n\r\nhelloEXTRA", 200, "hello");
        row("chunked, extension, trailer",
            ok +
                "Transfer-Encoding: chunked\r\n\r\n5;x=y\r\nhello\r\nA \r\n0123456789\r\n0\r\nX-T: 1\r\n\r\n",
            200, "hello0123456789");
        row("interim head, bare line ends, until close",
            "HTTP/1.1 100 Continue\r\nContent-Type: text/plain\r\n\r\nHTTP/1.0 200 OK\nContent-type:\n  "
            "audio/wav\n\nRIFF",
            200, "RIFF", "", "audio/wav");
        row("refusal with its reason", "HTTP/1.1 429 Too Many Requests\r\nContent-Length: 2\r\n\r\n{}", 429,
            "{}", "", "");
        row("no content", "HTTP/1.1 204 No Content\r\n\r\n", 204, "", "", "");
        row("length cut off", ok + "Content-Length: 10\r\n\r\nhello", 200, "hello", "end of the body");
        row("chunk cut off", ok + "Transfer-Encoding: chunked\r\n\r\n5\r\nhel", 200, "hel",
            "end of the body");
        row("chunk size not hex", ok + "Transfer-Encoding: chunked\r\n\r\nzz\r\nhello", 200, "",
            "chunk size");
        row("chunk longer than its size", ok + "Transfer-Encoding: chunked\r\n\r\n3\r\nhello\r\n0\r\n\r\n",
            200, "hel", "longer than its size");
        row("lengths disagree", ok + "Content-Length: 5\r\nContent-Length: 6\r\n\r\nhello", 200, "",
            "Content-Length");
        row("compressed framing", ok + "Transfer-Encoding: gzip, chunked\r\n\r\n", 200, "",
            "transfer coding");
        row("not HTTP", "ICY 200 OK\r\n\r\naudio", 0, "", "not an HTTP", "");
        row("closed in the head", "HTTP/1.1 200 OK\r\nContent-Le", 0, "", "response head", "");
        row("endless head", "HTTP/1.1 200 OK\r\nX-Pad: " + QByteArray(70000, 'a'), 0, "",
            "head of over 65536", "");
    }

    void httpFraming()
    {
        QFETCH(QByteArray, wire);
        QFETCH(QByteArray, body);
        for (const qsizetype step : {wire.size(), qsizetype(1)}) {
            HttpResponseParser parser;
            QByteArray got;
            for (qsizetype at = 0; at < wire.size(); at += step)
                parser.feed(QByteArrayView(wire).sliced(at, std::min(step, wire.size() - at)), got);
            const bool whole = parser.closed();
            QTEST(parser.hasHead() ? parser.status() : 0, "status");
            QTEST(parser.header("content-type"), "contentType");
            QCOMPARE(got, body);
            QFETCH(QString, failure);
            QVERIFY2(failure.isEmpty() ? whole : !whole && parser.failure().contains(failure),
                     qPrintable(parser.failure()));
        }
    }
};

QTEST_GUILESS_MAIN(TestServerAudio)
#include "tst_serveraudio.moc"
