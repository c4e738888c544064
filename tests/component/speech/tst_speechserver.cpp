// SPDX-License-Identifier: GPL-3.0-or-later
// Narration through a speech server the user chose, against the dev server answering as self-hosted
// servers do: every audio format plays at its pitch and length on the null sink without a header's click,
// a long text in WAV pieces plays as one, answers that hold no audio or that refuse say why, a late head
// is awaited only from a local server, and HTTPS works with a trusted certificate and says when it is not.
#include "SpeechFixture.h"
#include "ToneFrequency.h"

#include "speech/OpenAIServer.h"

#include <QJsonObject>
#include <QProcess>
#include <QSslConfiguration>

#include <cmath>
#include <vector>

namespace {

constexpr double kToneHz = 440.0;
constexpr double kToneAmplitude = 1.0 / 3.0; // the dev server's tone

const QString kText = QStringLiteral("The quick brown fox jumps over the lazy dog, twice over.");

QString longText()
{
    QString text;
    for (int i = 0; text.size() < 900; ++i)
        text += QStringLiteral("Sentence number %1 goes on for a while. ").arg(i);
    return text;
}

} // namespace

class TestSpeechServer : public QObject
{
    Q_OBJECT

    std::unique_ptr<SpeechFixture> m_f;
    DevServer *m_server = nullptr;
    SpeechManager *m_speech = nullptr;
    const QSslConfiguration m_tls = QSslConfiguration::defaultConfiguration();

    // A dev server with `arguments`, chosen in the settings as the server; OpenAI's origin is never asked.
    // With `asDeploymentOrigin` the deployment's origin names it instead, which makes it no chosen server.
    bool startServer(const QStringList &arguments, bool asDeploymentOrigin = false)
    {
        if (!m_f->startServer(QStringList{QStringLiteral("--pace"), QStringLiteral("0")} + arguments))
            return false;
        m_server = m_f->server.get();
        m_f->defaults.setString(OpenAIServer::serverKey, m_server->url().toString());
        m_f->originFromEnvironment = asDeploymentOrigin;
        m_f->createManager(asDeploymentOrigin ? m_server->url()
                                              : QUrl(QStringLiteral("https://api.openai.com")));
        m_speech = m_f->speech.get();
        return true;
    }

    // Plays the narration to its end on the virtual clock and returns what the sink rendered. All of it has
    // come first (the network is real): an underrun would be the test's doing, not the narration's.
    std::optional<std::vector<float>> narrate(const QString &text)
    {
        QSignalSpy ended(m_speech, &SpeechManager::playbackEnded);
        m_speech->speak(text);
        if (!QTest::qWaitFor([&] { return !m_f->records.sessions.isEmpty() || m_speech->hasError(); },
                             60000) ||
            m_speech->hasError())
            return std::nullopt;
        std::vector<float> heard;
        while (ended.isEmpty() && heard.size() < 600 * 24000) {
            const std::span<const float> pulled = m_f->sink->advance(480);
            heard.insert(heard.end(), pulled.begin(), pulled.end());
            QCoreApplication::processEvents();
        }
        // Trailing silence after the end is the sink's, not the narration's.
        while (!heard.empty() && heard.back() == 0.0f)
            heard.pop_back();
        return ended.isEmpty() ? std::nullopt : std::optional(heard);
    }

private Q_SLOTS:
    void init() { m_f = std::make_unique<SpeechFixture>(); }

    void cleanup()
    {
        QSslConfiguration::setDefaultConfiguration(m_tls);
        OpenAIServer::scaleHeadTimeouts(1);
        m_f.reset();
    }

    void formatsPlayAtTheirPitchAndLength_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<double>("toleranceSeconds");

        QTest::newRow("pcm 24000") << QStringList() << 0.01;
        QTest::newRow("pcm 16000 as L16")
            << QStringList{"--audio-rate", "16000", "--content-type", "audio/L16;rate=16000"} << 0.05;
        QTest::newRow("mp3 as L16") << QStringList{"--audio-format", "mp3", "--content-type", "audio/L16"}
                                    << 0.1;
    }

    void formatsPlayAtTheirPitchAndLength()
    {
        QFETCH(QStringList, arguments);
        QFETCH(double, toleranceSeconds);
        QVERIFY(startServer(arguments));
        const std::optional<std::vector<float>> heard = narrate(kText);
        QVERIFY2(heard, qPrintable(m_speech->currentErrorDescription()));
        const double seconds = double(heard->size()) / 24000;
        static const double reference = seconds; // the first row's: the same text as 24 kHz PCM
        QVERIFY2(std::abs(seconds - reference) <= toleranceSeconds,
                 qPrintable(QStringLiteral("%1 s, not %2 s").arg(seconds).arg(reference)));
        const double hz = toneFrequency(*heard, 24000.0);
        QVERIFY2(std::abs(hz - kToneHz) <= kToneHz * 0.01, qPrintable(QString::number(hz)));
        // No header played as audio: the first 3 ms stay at the tone's own level.
        float peak = 0;
        for (size_t i = 0; i < std::min<size_t>(72, heard->size()); ++i)
            peak = std::max(peak, std::abs((*heard)[i]));
        QCOMPARE_LE(peak, kToneAmplitude * 1.1);
        QCOMPARE(m_f->records.sessions.size(), 1);
    }

    // A long text in WAV pieces plays as one. A 422 about the input's length halves the request size and
    // sends the refused piece again.
    void longTextInWavPiecesPlaysSeamlessly()
    {
        QVERIFY(startServer(
            {"--audio-format", "wav", "--audio-rate", "22050", "--wav-unknown-sizes", "--max-input", "300"}));
        m_f->defaults.setUnsigned32(OpenAIServer::maxInputCharsKey, 512);
        const QString text = longText();
        const std::optional<std::vector<float>> heard = narrate(text);
        QVERIFY2(heard, qPrintable(m_speech->currentErrorDescription()));
        // No header between the pieces (its bytes would play near full scale; the resampler's ringing
        // where the tone stops stays far below that), and no gap: every 10 ms holds the tone.
        for (size_t at = 0; at + 240 <= heard->size(); at += 240) {
            float peak = 0;
            for (size_t i = at; i < at + 240; ++i)
                peak = std::max(peak, std::abs((*heard)[i]));
            QVERIFY2(peak <= kToneAmplitude * 1.5 && peak >= kToneAmplitude * 0.5,
                     qPrintable(QStringLiteral("%1 at %2 s").arg(peak).arg(double(at) / 24000)));
        }
        const QList<QJsonObject> log = m_server->requests();
        QCOMPARE(log.first().value("status").toInt(), 422);
        QStringList sent;
        for (const QJsonObject &record : log.mid(1)) {
            QCOMPARE(record.value("status").toInt(), 200);
            sent << DevServer::input(record);
        }
        QCOMPARE_GE(sent.size(), 3);
        // The log is in the order the answers ended; the pieces go back in the text's order.
        std::sort(sent.begin(), sent.end(),
                  [&](const QString &a, const QString &b) { return text.indexOf(a) < text.indexOf(b); });
        QCOMPARE(sent.join(QString()), text);
    }

    // Lists another server gave are replaced by the chosen server's, and asked for once; a voice only
    // the server has is offered and sent as is; without a key a local server is asked without an
    // Authorization header.
    void serversOwnVoiceWithoutKey()
    {
        QVERIFY(startServer({"--voices", "af_heart,am_adam", "--models", "whisper-1,kokoro", "--keyless"}));
        m_f->keychain.remove(KeychainKey::openAIAPIKey);
        m_f->defaults.setString(OpenAIServer::listedVoicesKey, QStringLiteral("bf_emma"));
        m_f->defaults.setString(OpenAIServer::listedFromKey, QStringLiteral("http://127.0.0.1:1"));
        m_speech->refreshServerCatalogIfStale();
        QTRY_COMPARE(m_speech->availableVoices(), (QStringList{"af_heart", "am_adam"}));
        QTRY_COMPARE(m_server->requests().size(), 2);
        m_speech->refreshServerCatalogIfStale();
        m_speech->setSelectedVoice(QStringLiteral("af_heart"));
        QVERIFY2(narrate(kText), qPrintable(m_speech->currentErrorDescription()));
        const QList<QJsonObject> log = m_server->waitForRequests(3);
        QCOMPARE(log.size(), 3); // the lists were not asked for again
        const QJsonObject &request = log.last();
        QCOMPARE(DevServer::body(request).value("voice").toString(), "af_heart");
        QCOMPARE(DevServer::body(request).value("model").toString(), "kokoro");
        QVERIFY(DevServer::header(request, u"Authorization").isNull());
    }

    // Answers that hold no audio or that refuse say why. A head later than the usual wait (scaled down
    // here) still plays from a chosen local server, which may synthesise everything first; the deployment's
    // origin keeps the usual wait. Over HTTPS a narration plays with the test CA trusted (for this process
    // only), and says that the certificate is not trusted without it. An error ending in "(" is the start.
    void outcomes_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("setup");
        QTest::addColumn<QString>("error");
        const auto row = [](const char *name, const QStringList &arguments, const char *error,
                            const char *setup = "") { QTest::newRow(name) << arguments << setup << error; };
        row("200 without a body", {"--no-audio"}, "The server sent no audio.");
        row("dropped after the head", {"--cut-after", "0"}, "The server sent no audio.");
        row("refused", {"--fail-status", "400"},
            "API error (400): Failure injected by quillvox-devserver --fail-status 400.");
        row("refused voice", {"--voices", "af_heart"},
            "API error (400): Voice 'marin' not found. Available voices: af_heart");
        row("late head, chosen local server", {"--ttfb-ms", "1200"}, "", "late");
        row("late head, deployment's origin", {"--ttfb-ms", "1200"}, "Received invalid response from server",
            "late deployment");
        row("https, trusted", {}, "", "tls trusted");
        row("https, not trusted", {}, "Network error: The server's certificate is not trusted (", "tls");
    }

    void outcomes()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, setup);
        QFETCH(QString, error);
        if (setup.startsWith(u"late"))
            OpenAIServer::scaleHeadTimeouts(1.0 / 100); // 600 ms, and 3 s for a local server
        if (setup.startsWith(u"tls")) { // a certificate of its own for 127.0.0.1, made for this run
            const QString key = m_f->dir.filePath("server.key"),
                          certificate = m_f->dir.filePath("server.pem");
            QCOMPARE(QProcess::execute("openssl", {"req", "-x509", "-newkey", "ec", "-pkeyopt",
                                                   "ec_paramgen_curve:P-256", "-nodes", "-days", "1", "-subj",
                                                   "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1",
                                                   "-keyout", key, "-out", certificate}),
                     0);
            arguments << "--tls-cert" << certificate << "--tls-key" << key;
            if (setup == u"tls trusted") {
                QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
                tls.addCaCertificates(certificate);
                QSslConfiguration::setDefaultConfiguration(tls);
            }
        }
        QVERIFY(startServer(arguments, setup.endsWith(u"deployment")));
        const std::optional<std::vector<float>> heard = narrate(kText);
        const QString shown = m_speech->currentErrorDescription();
        QVERIFY2(error.endsWith(u'(') ? shown.startsWith(error) : shown == error, qPrintable(shown));
        QCOMPARE(heard.has_value(), error.isEmpty());
        QVERIFY(!m_speech->isProcessing() && !m_speech->isPlaying());
        QCOMPARE(m_f->records.sessions.size(), error.isEmpty() ? 1 : 0);
    }
};

QTEST_GUILESS_MAIN(TestSpeechServer)
#include "tst_speechserver.moc"
