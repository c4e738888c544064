// SPDX-License-Identifier: GPL-3.0-or-later
// The narration controller end to end: real HTTP to the dev server on loopback, the audio engine on the
// null sink's virtual clock or a PulseAudio daemon of the test's own; and narration when things go wrong
// or grow large. Then through a speech server the user chose, the dev server answering as self-hosted
// servers do: its audio formats play at their pitch and length without a header's click, a long text in
// WAV pieces plays as one, answers that hold no audio or that refuse say why, a late head is awaited only
// from a local server, and HTTPS works with a trusted certificate and says when it is not.
#include "PulseServer.h"
#include "SpeechFixture.h"
#include "ToneFrequency.h"

#include "platform/pulse/PulseAudioSink.h"
#include "speech/FollowAlong.h"
#include "speech/NarrationText.h"
#include "speech/OpenAIServer.h"
#include "speech/TextPieces.h"

#include <QDateTime>
#include <QFile>
#include <QJsonObject>
#include <QProcess>
#include <QSslConfiguration>
#include <QStandardPaths>

#include <cmath>
#include <vector>

namespace {

constexpr double kToneHz = 440.0;
constexpr double kToneAmplitude = 1.0 / 3.0; // the dev server's tone

const QString kText = QStringLiteral("The quick brown fox jumps over the lazy dog, twice over.");

QString longText(qsizetype length)
{
    QString text;
    for (int i = 0; text.size() < length; ++i)
        text += QStringLiteral("Sentence number %1 goes on for a while. ").arg(i);
    return text.left(length);
}

QString sentence(int words)
{
    return QStringList(words, QStringLiteral("word")).join(u' ') + u'.';
}

} // namespace

class TestSpeechManager : public QObject
{
    Q_OBJECT

    std::unique_ptr<SpeechFixture> f;

    // `text` narrated by an unpaced server (started here if none is) until it plays and has been recorded.
    bool narrated(const QString &text)
    {
        if (!f->server && !f->startServer({QStringLiteral("--pace"), QStringLiteral("0")}))
            return false;
        f->speech->speak(text);
        return f->waitUntilPlaying() && QTest::qWaitFor([&] { return !f->records.sessions.isEmpty(); }, 5000);
    }
    // The speech requests of the pieces of `text`, in the text's order (the log is in the order they ended).
    QList<QJsonObject> pieces(const QString &text, qsizetype count) const
    {
        QList<QJsonObject> speech;
        for (const QJsonObject &record : f->server->waitForRequests(count + 1, std::chrono::seconds(2))) {
            if (record.value(QStringLiteral("path")).toString() == u"/v1/audio/speech")
                speech << record;
        }
        std::sort(speech.begin(), speech.end(), [&](const QJsonObject &a, const QJsonObject &b) {
            return text.indexOf(DevServer::input(a)) < text.indexOf(DevServer::input(b));
        });
        return speech;
    }
    // Processing, has content, playing.
    std::tuple<bool, bool, bool> state() const
    {
        return {f->speech->isProcessing(), f->speech->hasContent(), f->speech->isPlaying()};
    }
    static qint64 bytesSent(const QJsonObject &record)
    {
        return record.value(QStringLiteral("bodyBytesSent")).toInteger();
    }

    const QSslConfiguration m_tls = QSslConfiguration::defaultConfiguration();

    // A dev server with `arguments`, chosen in the settings as the server; OpenAI's origin is never asked.
    // With `asDeploymentOrigin` the deployment's origin names it instead, which makes it no chosen server.
    bool startChosenServer(const QStringList &arguments, bool asDeploymentOrigin = false)
    {
        if (!f->startServer(QStringList{QStringLiteral("--pace"), QStringLiteral("0")} + arguments))
            return false;
        f->defaults.setString(OpenAIServer::serverKey, f->server->url().toString());
        f->originFromEnvironment = asDeploymentOrigin;
        f->createManager(asDeploymentOrigin ? f->server->url()
                                            : QUrl(QStringLiteral("https://api.openai.com")));
        return true;
    }

    // Plays the narration to its end on the virtual clock and returns what the sink rendered. All of it has
    // come first (the network is real): an underrun would be the test's doing, not the narration's.
    std::optional<std::vector<float>> narrate(const QString &text)
    {
        QSignalSpy ended(f->speech.get(), &SpeechManager::playbackEnded);
        f->speech->speak(text);
        if (!QTest::qWaitFor([&] { return !f->records.sessions.isEmpty() || f->speech->hasError(); },
                             60000) ||
            f->speech->hasError())
            return std::nullopt;
        std::vector<float> heard;
        while (ended.isEmpty() && heard.size() < 600 * 24000) {
            const std::span<const float> pulled = f->sink->advance(480);
            heard.insert(heard.end(), pulled.begin(), pulled.end());
            QCoreApplication::processEvents();
        }
        // Trailing silence after the end is the sink's, not the narration's.
        while (!heard.empty() && heard.back() == 0.0f)
            heard.pop_back();
        return ended.isEmpty() ? std::nullopt : std::optional(heard);
    }

private Q_SLOTS:
    void init() { f = std::make_unique<SpeechFixture>(); }
    void cleanup()
    {
        QSslConfiguration::setDefaultConfiguration(m_tls);
        OpenAIServer::scaleHeadTimeouts(1);
        f.reset();
    }

    // With the own key or the service, whole or cut off after 30,000 bytes: what came plays and is recorded,
    // with no error, and the displayed total never shrinks. One style besides the default, so that the
    // style's own instructions are what is sent.
    void narrationRunsThroughItsStates_data()
    {
        QTest::addColumn<QStringList>("cut");
        QTest::addColumn<bool>("service");
        QTest::addColumn<QString>("style");
        QTest::newRow("own key") << QStringList() << false << "Standard";
        QTest::newRow("cut off") << QStringList{"--cut-after", "30000"} << false << "Standard";
        QTest::newRow("service, Dramatic") << QStringList() << true << "Dramatic";
    }

    void narrationRunsThroughItsStates()
    {
        QFETCH(QStringList, cut);
        QFETCH(bool, service);
        QFETCH(QString, style);
        QVERIFY(f->startServer(QStringList{"--pace", "0"} + cut));
        if (service) { // with just the minute a narration needs
            f->account.signedIn = f->keychain.save(QStringLiteral("stored-token"), KeychainKey::accessToken);
            f->account.token = f->server->signIn().queryItemValue(QStringLiteral("access_token"));
            f->account.balance = 60;
        }
        f->speech->setSelectedVoice(QStringLiteral("cedar"));
        f->speech->setSelectedVoiceStyleRawValue(style);
        const QString text = u"  " + sentence(12) + u'\n'; // sent exactly as it is
        qsizetype heldAtStart = -1;
        connect(f->speech.get(), &SpeechManager::isPlayingChanged, this, [&] {
            if (f->speech->isPlaying() && heldAtStart < 0)
                heldAtStart = f->speech->accumulatedByteCount();
        });
        f->speech->speak(text);
        if (service) // once a token has come
            QTRY_VERIFY(f->speech->isProcessing());
        QCOMPARE(state(), std::tuple(true, true, false));
        const double estimate = f->speech->displayedTotalTime();
        QCOMPARE(estimate, f->speech->estimatedDuration(text));
        QVERIFY(f->waitUntilPlaying());
        QCOMPARE(heldAtStart, 3 * SpeechManager::kAudioChunkSize); // the first chunk past 0.5 s of audio
        QTRY_COMPARE(f->records.sessions.size(), 1); // recorded when the stream ends, before playback does
        QVERIFY(!f->speech->isProcessing() && !f->speech->currentError());
        QVERIFY(f->playToEnd());
        QCOMPARE(state(), std::tuple(false, true, false));
        QCOMPARE(f->speech->currentTime(), f->speech->totalTime());
        const qsizetype expected = service ? 2 : 1; // after the sign-in's own request, for the service
        const QList<QJsonObject> log = f->server->waitForRequests(expected, std::chrono::seconds(10));
        QCOMPARE(log.size(), expected);
        // A wrong method or path the dev server refuses; the rest it takes as it comes.
        const QJsonObject &request = log.last();
        QCOMPARE(DevServer::header(request, u"Authorization"),
                 service ? QStringLiteral("Bearer ") + *f->account.token : QStringLiteral("Bearer local"));
        QCOMPARE(DevServer::header(request, u"Content-Type"), QStringLiteral("application/json"));
        // Exactly these members, each a string.
        QCOMPARE(DevServer::body(request),
                 (QJsonObject{{"input", text},
                              {"instructions", VoiceStyle::fromRawValue(style)->instructions()},
                              {"model", service ? "gpt-4o-mini-tts" : "gpt-4o-mini-tts-2025-12-15"},
                              {"response_format", "pcm"},
                              {"voice", "cedar"}}));
        const qsizetype bytes = bytesSent(request);
        QCOMPARE(bytes, cut.isEmpty() ? bytes : 30000);
        QCOMPARE_GE(f->speech->displayedTotalTime(), estimate);
        QCOMPARE(f->records.sessions.first().bytes, bytes);
        QCOMPARE(f->records.sessions.first().duration, double(bytes / 2) / 24000.0);
        QCOMPARE(f->records.sessions.first().text, text);
        QCOMPARE(f->records.usage, QList<qint64>{text.size()});
        QCOMPARE(f->speech->totalTime(), double(bytes) * 0.5 / 24000.0);
        QCOMPARE(f->account.deducted,
                 service ? QList<double>{f->records.sessions.first().duration} : QList<double>{});
        f->speech->togglePlayPause(); // played to the end: play starts again from the beginning
        QVERIFY(f->speech->isPlaying());
        QCOMPARE(f->speech->currentTime(), 0.0);
        QVERIFY(f->playToEnd());
        if (service)
            return;
        // A narration shorter than what playback waits for is played all the same.
        f->speech->setPlaybackSpeed(2.0f);
        f->speech->speak(QStringLiteral("Hi"));
        QCOMPARE(f->speech->displayedTotalTime(), 0.1); // the estimate, 0.06 s, is raised to 0.1 s
        QVERIFY(f->waitUntilPlaying());
        QVERIFY(f->playToEnd());
        QCOMPARE(f->records.sessions.size(), 2); // a replay is not recorded again
    }

    void stopDuringDownloadPublishesAndRecordsNothing()
    {
        QVERIFY(f->startServer({"--pace", "1"}));
        f->speech->speak(sentence(40));
        QTRY_VERIFY(f->speech->accumulatedByteCount() > 0);
        QSignalSpy errors(f->speech.get(), &SpeechManager::currentErrorChanged);
        f->speech->stop();
        f->speech->togglePlayPause(); // nothing to play after a stop
        QCOMPARE(state(), std::tuple(false, false, false));
        QTest::qWait(300);
        QCOMPARE(f->speech->accumulatedByteCount(), qsizetype(0));
        QVERIFY(errors.isEmpty() && f->records.sessions.isEmpty() && f->records.usage.isEmpty());
    }

    // Of a burst of seeks only the last is performed, clamped to the audio; the scrubber follows each at
    // once. Past the end, playback ends.
    void seeks_data()
    {
        QTest::addColumn<QList<qint64>>("frames");
        QTest::newRow("burst") << QList<qint64>{24000, 48000, 12000, 36000};
        QTest::newRow("negative plays from 0") << QList<qint64>{-120000};
        QTest::newRow("past the end") << QList<qint64>{24000, 100'000'000};
    }

    void seeks()
    {
        QFETCH(QList<qint64>, frames);
        QVERIFY(narrated(sentence(30)));
        const qint64 end = f->speech->accumulatedByteCount() / 2;
        const qint64 target = std::clamp(frames.last(), qint64(0), end);
        QSignalSpy performed(f->speech.get(), &SpeechManager::seekPerformed);
        QSignalSpy ended(f->speech.get(), &SpeechManager::playbackEnded);
        for (qint64 frame : frames) {
            f->speech->seekToFrame(frame);
            if (frame >= 0 && frame < end)
                QCOMPARE(f->speech->currentTime(), double(frame) / 24000.0);
        }
        QTRY_COMPARE(ended.size(), target == end ? 1 : 0);
        if (target == end) {
            QCOMPARE(f->speech->currentTime(), f->speech->totalTime());
            QVERIFY(!f->speech->isPlaying());
            return;
        }
        QTRY_COMPARE(performed.size(), 1);
        QCOMPARE(performed.first().first().toLongLong(), target);
        QVERIFY(f->speech->isPlaying());
        f->advance(2400);
        QCOMPARE(f->speech->currentPlaybackFrame(), target + 2400);
    }

    void pauseKeepsPositionAndSeekingWhilePausedStaysPaused()
    {
        QVERIFY(narrated(sentence(20)));
        QSignalSpy unwatched(f->speech.get(), &SpeechManager::lastLevelTimestampChanged);
        f->advance(4800);
        QVERIFY(unwatched.isEmpty());       // nobody shows the levels: none are measured
        f->speech->watchLevels(this, true); // as a waveform on screen does
        f->advance(7200);
        // Levels measured before the pause but delivered after it leave the smoothed level alone.
        f->sink->advance(4800);
        f->speech->togglePlayPause();
        QVERIFY(!f->speech->isPlaying());
        const float level = f->speech->currentAudioLevel();
        QSignalSpy measured(f->speech.get(), &SpeechManager::lastLevelTimestampChanged);
        QCoreApplication::processEvents();
        QVERIFY(!measured.isEmpty());
        QCOMPARE(f->speech->currentAudioLevel(), level);
        const qint64 position = f->speech->currentPlaybackFrame();
        f->advance(24000);
        QCOMPARE(f->speech->currentPlaybackFrame(), position);
        QSignalSpy performed(f->speech.get(), &SpeechManager::seekPerformed);
        f->speech->seekToFrame(4800);
        QTRY_COMPARE(performed.size(), 1);
        f->advance(24000);
        QCOMPARE(f->speech->currentPlaybackFrame(), qint64(4800)); // and still paused
        f->speech->togglePlayPause();
        QVERIFY(f->playToEnd());
    }

    void previewAndReplayRecordNothing()
    {
        f->createManager(QUrl(QStringLiteral("http://127.0.0.1:9")));
        f->speech->playVoicePreview(QStringLiteral("marin"));
        QVERIFY(f->waitUntilPlaying());
        QVERIFY(f->speech->totalTime() > 1.0);
        QVERIFY(f->playToEnd());
        const QUuid id = QUuid::createUuid();
        QFile file(f->records.audioFile(id));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(QByteArray(48000, '\x10')) == 48000);
        file.close();
        f->records.texts[id] = QStringLiteral("One. Two.");
        f->speech->playFromHistory(id);
        QVERIFY(f->speech->isPlaying());
        QCOMPARE(f->speech->totalTime(), 1.0);
        // Followed along as it was heard: "Two." starts 5 of 9 characters in.
        QCOMPARE(f->speech->followAlong()->sentence(), QStringLiteral("One."));
        f->speech->seekToFrame(13334);
        QCOMPARE(f->speech->followAlong()->sentence(), QStringLiteral("Two."));
        QVERIFY(f->playToEnd());
        QCOMPARE(f->speech->currentPlayingSessionId(), id);
        QVERIFY(f->records.sessions.isEmpty() && f->records.usage.isEmpty());
        f->speech->playFromHistory(QUuid::createUuid()); // its audio file is gone
        QVERIFY(!f->speech->currentPlayingSessionId());
        QVERIFY(!f->speech->hasContent());
    }

    // A row is a script: server arguments (else an unpaced server), then the steps that set the scene,
    // then what speaks or triggers. Then the error shown (its description, or "id:" and its id) or the
    // state, and the requests the server saw.
    void scripts_data()
    {
        QTest::addColumn<QStringList>("steps");
        QTest::addColumn<QString>("expect");
        QTest::addColumn<int>("requests");
        const auto row = [](const char *name, const char *steps, const char *expect, int requests) {
            QTest::newRow(name) << QString::fromUtf8(steps).split(u'|') << QString::fromUtf8(expect)
                                << requests;
        };
        const char *noKey = "OpenAI API key is missing. Please add it in Settings.";
        row("401", "--fail-status 401|speak", "API error (401): Unauthorized", 1);
        row("402", "--fail-status 402|7 min|speak",
            "Low balance (7 min remaining). Add more minutes to continue.", 1);
        row("dropped before head", "--drop-before-head|speak", "Received invalid response from server", -1);
        // Checks that fail: nothing more is sent.
        row("no key", "narrate|no key|speak", noKey, 1);
        row("empty key", "narrate|empty key|speak", noKey, 1);
        row("token, signed out", "narrate|token|signed out|speak", "Please sign in to use narration.", 1);
        row("no valid token", "narrate|token|no valid token|speak", "Please sign in to use narration.", 1);
        row("blank text", "narrate|speak: \n\t ", "playing", 1); // returns before stopping what plays
        row("not trusted", "untrusted|trigger:text", "id:accessibilityPermissionMissing", 0);
        row("nothing selected", "trigger", "id:noTextSelected", 0);
        row("whitespace only", "trigger:  \n ", "id:noTextSelected", 0);
        row("same text toggles", "narrate|trigger:  hello,  WORLD! ", "paused", 1);
        row("nothing selected toggles", "narrate|trigger", "paused", 1);
        row("same text after the end restarts", "narrate|end|trigger:Hello world", "restarted", 1);
        row("same text after a stop does nothing", "narrate|stop|trigger:Hello world", "nothing", 1);
        row("new text narrates", "narrate|trigger:Something else", "request", 2);
    }

    void scripts()
    {
        QFETCH(QStringList, steps);
        QFETCH(QString, expect);
        QFETCH(int, requests);
        QVERIFY(f->startServer(steps.first().startsWith(u"--") ? steps.takeFirst().split(u' ')
                                                               : QStringList{"--pace", "0"}));
        bool ok = true;
        const QHash<QString, std::function<void()>> scene{
            {"narrate", [&] { ok = narrated(QStringLiteral("Hello world")); }},
            {"end", [&] { ok = f->playToEnd(); }},
            {"stop", [&] { f->speech->stop(); }},
            {"no key", [&] { ok = f->keychain.remove(KeychainKey::openAIAPIKey); }},
            {"empty key", [&] { ok = f->keychain.save(QString(), KeychainKey::openAIAPIKey); }},
            {"token",
             [&] { ok = f->account.signedIn = f->keychain.save("stored-token", KeychainKey::accessToken); }},
            {"signed out", [&] { f->account.signedIn = false; }},
            {"7 min", [&] { f->account.minutes = 7; }},
            {"no valid token", [&] { f->account.token.reset(); }},
            {"untrusted", [&] { f->selection.trusted = false; }}};
        for (const QString &step : std::as_const(steps)) {
            const qsizetype colon = step.indexOf(u':');
            const std::optional<QString> arg = colon < 0 ? std::nullopt : std::optional(step.mid(colon + 1));
            if (scene.contains(step)) {
                scene[step]();
            } else if (step.startsWith(u"speak")) {
                f->speech->speak(arg.value_or(sentence(6)));
            } else {
                f->selection.selection = arg;
                f->speech->setCurrentError(std::nullopt);
                f->speech->handleNarrationTrigger();
                QCoreApplication::processEvents();
            }
            QVERIFY2(ok, qPrintable(step));
        }
        if (expect.startsWith(u"id:")) {
            QCOMPARE(f->speech->currentErrorId(), expect.mid(3));
        } else if (expect == u"paused" || expect == u"playing") {
            QCOMPARE(state(), std::tuple(false, true, expect == u"playing"));
        } else if (expect == u"restarted") {
            QCOMPARE(std::pair(f->speech->isPlaying(), f->speech->currentTime()), std::pair(true, 0.0));
        } else if (expect == u"nothing") {
            QVERIFY(!f->speech->currentError() && !f->speech->hasContent());
        } else if (expect != u"request") {
            QTRY_VERIFY_WITH_TIMEOUT(f->speech->currentError().has_value(), 10000);
            QCOMPARE(f->speech->currentErrorDescription(), expect);
            QVERIFY(!f->speech->isProcessing() && !f->speech->isPlaying());
            QCOMPARE(f->records.sessions.size(), steps.count(QStringLiteral("narrate")));
            if (!f->records.sessions.isEmpty()) // a failed check comes after stop(): what was loaded is gone
                QVERIFY(!f->speech->hasContent());
            f->speech->togglePlayPause(); // nothing to play, and the error stays
            QVERIFY(!f->speech->isPlaying());
            QCOMPARE(f->speech->currentErrorDescription(), expect);
        }
        if (requests >= 0) // (a connection dropped before any answer may be tried again)
            QCOMPARE(f->server->waitForRequests(requests + 1, std::chrono::milliseconds(300)).size(),
                     requests);
    }

    void persistedChoicesFallBack_data()
    {
        QTest::addColumn<QStringList>("stored"); // voice, style, appearance and theme
        QTest::addColumn<QStringList>("expected");
        const QStringList stored{"shimmer", "Bedtime Story", "Light", "Ocean"};
        QTest::newRow("missing") << QStringList() << QStringList{"marin", "Standard", "Dark", "Default"};
        QTest::newRow("stored") << stored << stored;
        QTest::newRow("unknown") << QStringList{"robot", "bedtime story", "light", "Neon"}
                                 << QStringList{"robot", "Standard", "Dark", "Default"};
    }

    void persistedChoicesFallBack()
    {
        QFETCH(QStringList, stored);
        const QStringList keys{"selectedVoice", "selectedVoiceStyle", "widgetAppearance", "widgetTheme"};
        for (qsizetype i = 0; i < stored.size(); ++i)
            f->defaults.setString(keys[i], stored[i]);
        f->createManager(QUrl(QStringLiteral("http://127.0.0.1:9")));
        QTEST(QStringList({f->speech->selectedVoice(), f->speech->selectedVoiceStyleRawValue(),
                           f->speech->widgetAppearanceRawValue(), f->speech->widgetThemeRawValue()}),
              "expected");
        f->speech->setSelectedVoiceStyle(VoiceStyle::Dramatic);
        QCOMPARE(f->defaults.string(QStringLiteral("selectedVoiceStyle")), QStringLiteral("Dramatic"));
        f->speech->useVoiceForThisRun(QStringLiteral("onyx"));
        QCOMPARE(f->defaults.string(QStringLiteral("selectedVoice")).value_or(QString()), stored.value(0));
    }

    // tst_deploymentconfig checks the refusal for each origin that carries tokens; here, that the program
    // stops on it before doing anything else.
    void startRefusesPlainHttpForTokens()
    {
        QProcess app;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("QUILLVOX_AUTH_ORIGIN"), QStringLiteral("http://quillvox.example"));
        env.insert(QStringLiteral("QUILLVOX_AUDIO_OUTPUT"), QStringLiteral("null"));
        app.setProcessEnvironment(env);
        app.start(QStringLiteral(QUILLVOX_EXECUTABLE), {QStringLiteral("--speak"), QStringLiteral("Hello.")});
        QVERIFY(app.waitForFinished(30000));
        QCOMPARE(app.exitCode(), 1);
        QCOMPARE(QString::fromUtf8(app.readAllStandardError()).section(u'\n', 0, 0),
                 QStringLiteral(
                     "quillvox: QUILLVOX_AUTH_ORIGIN is http://quillvox.example, but sign-in tokens are "
                     "only sent over https:// (plain http only to this computer: localhost, 127.0.0.1 "
                     "or ::1)."));
    }

    void longTextPlaysAsOneNarration()
    {
        // Fast enough to finish soon, slow enough that a piece streams for seconds: a next request that
        // waited for the end of the previous stream would show in the send times.
        QVERIFY(f->startServer({"--pace", "100"}));
        const QString text = longText(10000);
        f->speech->setPlaybackSpeed(2.0f);
        QList<QPair<qint64, double>> totals; // when (ms since the epoch), and the total then
        connect(f->speech.get(), &SpeechManager::totalTimeChanged, this, [&] {
            totals.append({QDateTime::currentMSecsSinceEpoch(), f->speech->totalTime()});
        });
        f->speech->speak(text);
        QTRY_COMPARE_WITH_TIMEOUT(f->records.sessions.size(), 1, 120000);
        const QList<QJsonObject> log = pieces(text, 3);
        QCOMPARE(log.size(), 3);
        QStringList inputs;
        qint64 bytes = 0;
        for (const QJsonObject &record : log) {
            QCOMPARE(record.value(QStringLiteral("status")).toInt(), 200);
            inputs << DevServer::input(record);
            QVERIFY(TextPieces::codePointCount(inputs.last()) <= 4096);
            bytes += bytesSent(record);
            if (inputs.size() == 3)
                break;
            // The server had the next request before the last chunk of this piece had arrived.
            const double lastChunk = double(bytes - 9600) / 48000.0;
            const auto arrived = std::find_if(totals.begin(), totals.end(),
                                              [&](const auto &total) { return total.second >= lastChunk; });
            QVERIFY(arrived != totals.end());
            QCOMPARE_LT(log[inputs.size()].value(QStringLiteral("receivedMs")).toInteger(), arrived->first);
        }
        QCOMPARE(inputs.join(QString()), text);
        // One narration: one record with the whole text and all the audio, one usage count, a total that
        // only grew.
        QCOMPARE(f->records.sessions.first().text, text);
        QCOMPARE(f->records.sessions.first().bytes, bytes);
        QCOMPARE(f->records.usage, QList<qint64>{NarrationText::characterCount(text)});
        QCOMPARE(f->speech->totalTime(), double(bytes) / 48000.0);
        QVERIFY(std::is_sorted(totals.begin(), totals.end(),
                               [](const auto &a, const auto &b) { return a.second < b.second; }));

        // The second piece's first sentence starts exactly where its audio starts; at 2.0x the position
        // still counts narration frames.
        const qint64 pieceStart = bytesSent(log[0]) / 2;
        const FollowAlong &follow = *f->speech->followAlong();
        qsizetype first = 0;
        while (first < follow.count() && follow.startFrame(first) < pieceStart)
            ++first;
        QVERIFY(first < follow.count());
        QCOMPARE(follow.startFrame(first), pieceStart);
        QVERIFY(inputs[1].trimmed().startsWith(follow.sentenceAt(first).text));
        QSignalSpy performed(f->speech.get(), &SpeechManager::seekPerformed);
        f->speech->seekToFrame(pieceStart - 24000);
        QCOMPARE(follow.currentIndex(), first - 1);
        QTRY_COMPARE(performed.size(), 1);
        f->sink->advance(6000); // half a second of narration at 2.0x
        QTest::qWait(300);      // a progress tick
        QCOMPARE(follow.currentIndex(), first - 1);
        f->sink->advance(12000);
        QTRY_COMPARE(follow.currentIndex(), first);
        QCOMPARE(follow.sentence(), follow.sentenceAt(first).text);
        f->speech->seekToFrame(0);
        QCOMPARE(follow.currentIndex(), 0);
        QVERIFY(f->playToEnd(48000));
        QVERIFY(!f->speech->currentError());
        f->speech->stop();
        QCOMPARE(follow.sentence(), QString());
    }

    void failingPieceEndsTheNarrationAfterWhatCame()
    {
        QVERIFY(f->startServer({"--pace", "0"}));
        f->server->control(QStringLiteral("/dev/fail"),
                           {{"route", "speech"}, {"status", 500}, {"count", 1}, {"after", 1}});
        const QString text = longText(10000);
        f->speech->speak(text);
        QTRY_COMPARE_WITH_TIMEOUT(f->records.sessions.size(), 1, 60000);
        // What came before the failure plays first, with no error shown yet.
        QVERIFY(f->speech->isPlaying() && !f->speech->currentError());
        const QList<QJsonObject> log = pieces(text, 2);
        QCOMPARE(log.size(), 2);
        QCOMPARE(log[0].value(QStringLiteral("status")).toInt(), 200);
        QCOMPARE(log[1].value(QStringLiteral("status")).toInt(), 500);
        QCOMPARE(f->records.sessions.first().text, text);
        QCOMPARE(f->records.sessions.first().bytes, bytesSent(log[0]));
        QCOMPARE(f->records.usage.size(), 1);
        QVERIFY(f->playToEnd(48000));
        QCOMPARE(f->speech->currentErrorDescription(),
                 QStringLiteral("API error (500): Internal Server Error"));
        QCOMPARE(state(), std::tuple(false, true, false));
    }

    void soundServerGoesAwayMidNarration()
    {
        if (QStandardPaths::findExecutable(QStringLiteral("pulseaudio")).isEmpty())
            QSKIP("pulseaudio is not installed");
        PulseServer pulse(f->dir.filePath(QStringLiteral("pulse")));
        QVERIFY(pulse.start());
        PulseServerEnvironment environment(pulse.address());
        QVERIFY(f->startServer({"--pace", "0"}));
        f->createManager(f->server->url(), std::make_unique<PulseAudioSink>(2000));
        QVERIFY(!f->speech->currentError());
        f->speech->speak(longText(300));
        QTRY_COMPARE_WITH_TIMEOUT(f->records.sessions.size(), 1, 20000);
        QTRY_VERIFY_WITH_TIMEOUT(f->speech->currentPlaybackFrame() > 24000, 10000);
        const qsizetype audio = f->speech->accumulatedByteCount();
        pulse.kill();
        QTRY_VERIFY_WITH_TIMEOUT(f->speech->currentError().has_value(), 10000);
        QVERIFY2(f->speech->currentErrorDescription().startsWith(
                     QStringLiteral("Audio engine failed: PulseAudio: ")),
                 qPrintable(f->speech->currentErrorDescription()));
        QCOMPARE(f->speech->currentError()->kind(), SpeechError::audioEngineFailure);
        QCOMPARE(state(), std::tuple(false, true, false));
        QCOMPARE(f->speech->accumulatedByteCount(), audio);
        const qint64 place = f->speech->currentPlaybackFrame();
        QVERIFY2(place > 24000 && place < audio / 2, qPrintable(QString::number(place)));
        QCOMPARE(f->speech->currentTime(), double(place) / 24000.0);
        // Play with no server: the same error, the same place.
        f->speech->togglePlayPause();
        QVERIFY(!f->speech->isPlaying());
        QCOMPARE(f->speech->currentError()->kind(), SpeechError::audioEngineFailure);
        QCOMPARE(f->speech->currentPlaybackFrame(), place);
        // A server is back: nothing happens until play, which goes on from the same place.
        QVERIFY(pulse.start() && pulse.startRecorder());
        QVERIFY(!f->speech->isPlaying());
        f->speech->togglePlayPause();
        QVERIFY(f->speech->isPlaying() && !f->speech->currentError());
        QTRY_VERIFY_WITH_TIMEOUT(f->speech->currentPlaybackFrame() > place + 12000, 10000);
        QVERIFY(f->speech->currentPlaybackFrame() < place + 5 * 24000);
        QTRY_VERIFY_WITH_TIMEOUT(findSound(pulse.recorded()).start >= 0, 5000);
        QCOMPARE(f->records.sessions.size(), 1);
    }

    // A long text in WAV pieces plays as one. A 422 about the input's length halves the request size and
    // sends the refused piece again.
    void longTextInWavPiecesPlaysSeamlessly()
    {
        QVERIFY(startChosenServer(
            {"--audio-format", "wav", "--audio-rate", "22050", "--wav-unknown-sizes", "--max-input", "300"}));
        f->defaults.setUnsigned32(OpenAIServer::maxInputCharsKey, 512);
        const QString text = longText(900);
        const std::optional<std::vector<float>> heard = narrate(text);
        QVERIFY2(heard, qPrintable(f->speech->currentErrorDescription()));
        // No header between the pieces (its bytes would play near full scale; the resampler's ringing
        // where the tone stops stays far below that), and no gap: every 10 ms holds the tone.
        for (size_t at = 0; at + 240 <= heard->size(); at += 240) {
            float peak = 0;
            for (size_t i = at; i < at + 240; ++i)
                peak = std::max(peak, std::abs((*heard)[i]));
            QVERIFY2(peak <= kToneAmplitude * 1.5 && peak >= kToneAmplitude * 0.5,
                     qPrintable(QStringLiteral("%1 at %2 s").arg(peak).arg(double(at) / 24000)));
        }
        const QList<QJsonObject> log = f->server->requests();
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
        QVERIFY(
            startChosenServer({"--voices", "af_heart,am_adam", "--models", "whisper-1,kokoro", "--keyless"}));
        f->keychain.remove(KeychainKey::openAIAPIKey);
        f->defaults.setString(OpenAIServer::listedVoicesKey, QStringLiteral("bf_emma"));
        f->defaults.setString(OpenAIServer::listedFromKey, QStringLiteral("http://127.0.0.1:1"));
        f->speech->refreshServerCatalogIfStale();
        QTRY_COMPARE(f->speech->availableVoices(), (QStringList{"af_heart", "am_adam"}));
        QTRY_COMPARE(f->server->requests().size(), 2);
        f->speech->refreshServerCatalogIfStale();
        f->speech->setSelectedVoice(QStringLiteral("af_heart"));
        QVERIFY2(narrate(kText), qPrintable(f->speech->currentErrorDescription()));
        const QList<QJsonObject> log = f->server->waitForRequests(3);
        QCOMPARE(log.size(), 3); // the lists were not asked for again
        const QJsonObject &request = log.last();
        QCOMPARE(DevServer::body(request).value("voice").toString(), "af_heart");
        QCOMPARE(DevServer::body(request).value("model").toString(), "kokoro");
        QVERIFY(DevServer::header(request, u"Authorization").isNull());
    }

    // Audio in another format than the speech format plays at its pitch and length without a header's
    // click. Answers that hold no audio or that refuse say why. A head later than the usual wait (scaled down
    // here) still plays from a chosen local server, which may synthesise everything first; the deployment's
    // origin keeps the usual wait. Over HTTPS a narration plays with the test CA trusted (for this process
    // only), and says that the certificate is not trusted without it. An error ending in "(" is the start.
    void outcomes_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("setup");
        QTest::addColumn<QString>("error");
        QTest::addColumn<double>("toleranceSeconds"); // of a length like the first row's; 0: not compared
        const auto row = [](const char *name, const QStringList &arguments, const char *error,
                            const char *setup = "", double tolerance = 0) {
            QTest::newRow(name) << arguments << setup << error << tolerance;
        };
        row("pcm 24000", {}, "", "", 0.01);
        row("pcm 16000 as L16", {"--audio-rate", "16000", "--content-type", "audio/L16;rate=16000"}, "", "",
            0.05);
        row("mp3 as L16", {"--audio-format", "mp3", "--content-type", "audio/L16"}, "", "", 0.1);
        row("dropped after the head", {"--cut-after", "0"}, "The server sent no audio.");
        row("refused", {"--fail-status", "400"},
            "API error (400): Failure injected by quillvox-devserver --fail-status 400.");
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
        QFETCH(double, toleranceSeconds);
        if (setup.startsWith(u"late"))
            OpenAIServer::scaleHeadTimeouts(1.0 / 100); // 600 ms, and 3 s for a local server
        if (setup.startsWith(u"tls")) { // a certificate of its own for 127.0.0.1, made for this run
            const QString key = f->dir.filePath("server.key"), certificate = f->dir.filePath("server.pem");
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
        QVERIFY(startChosenServer(arguments, setup.endsWith(u"deployment")));
        const std::optional<std::vector<float>> heard = narrate(kText);
        const QString shown = f->speech->currentErrorDescription();
        QVERIFY2(error.endsWith(u'(') ? shown.startsWith(error) : shown == error, qPrintable(shown));
        QCOMPARE(heard.has_value(), error.isEmpty());
        QVERIFY(!f->speech->isProcessing() && !f->speech->isPlaying());
        QCOMPARE(f->records.sessions.size(), error.isEmpty() ? 1 : 0);
        if (toleranceSeconds == 0)
            return;
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
    }
};

QTEST_GUILESS_MAIN(TestSpeechManager)
#include "tst_speechmanager.moc"
