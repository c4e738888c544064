// SPDX-License-Identifier: GPL-3.0-or-later
// The narration controller end to end: real HTTP to the dev server on loopback, the audio engine on the
// null sink's virtual clock or a PulseAudio daemon of the test's own, secrets in an in-memory store; and
// narration when things go wrong or grow large: texts longer than one request takes, a piece failing
// midway, the sound server going away mid-narration. Fakes stand in for the account, the records and the
// selection.
#include "DevServer.h"
#include "PulseServer.h"

#include "account/KeychainHelper.h"
#include "core/UserDefaults.h"
#include "platform/null/MemorySecretStore.h"
#include "platform/null/NullAudioSink.h"
#include "platform/pulse/PulseAudioSink.h"
#include "speech/FollowAlong.h"
#include "speech/NarrationServices.h"
#include "speech/NarrationText.h"
#include "speech/SpeechManager.h"
#include "speech/TextPieces.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

namespace {

class FakeAccount final : public AccountGate
{
public:
    bool signedIn = false;
    qint64 balance = 3600;
    int minutes = 60;
    std::optional<QString> token = QStringLiteral("service-token");
    QList<double> deducted;

    bool isSignedIn() const override { return signedIn; }
    qint64 balanceSeconds() const override { return balance; }
    int minutesRemaining() const override { return minutes; }
    void getValidAccessToken(QObject *context, std::function<void(std::optional<QString>)> done) override
    {
        // Answer in a later turn of the event loop, as a real refresh would.
        QTimer::singleShot(0, context, [done, t = token] { done(t); });
    }
    void deductSeconds(double seconds) override { deducted << seconds; }
};

class FakeRecords final : public NarrationRecords
{
public:
    struct Session
    {
        QString text, voice;
        double duration;
        qsizetype bytes;
    };
    QList<Session> sessions;
    QList<qint64> usage;
    QString folder;
    QHash<QUuid, QString> texts;

    void addSession(const QString &text, const QString &voice, double durationSeconds,
                    const QByteArray &audioData) override
    {
        sessions << Session{text, voice, durationSeconds, audioData.size()};
    }
    QString audioFile(const QUuid &id) const override
    {
        return folder + u'/' + id.toString(QUuid::WithoutBraces).toUpper() + QStringLiteral(".pcm");
    }
    QString text(const QUuid &id) const override { return texts.value(id); }
    void recordUsage(qint64 characters) override { usage << characters; }
};

class FakeSelection final : public SelectionSource
{
public:
    bool trusted = true;
    std::optional<QString> selection;
    bool isProcessTrusted(bool) override { return trusted; }
    std::optional<QString> captureSelectedText() override { return selection; }
};

// Notes when each request leaves.
class RecordingNetwork final : public QNetworkAccessManager
{
public:
    QElapsedTimer clock;
    QList<qint64> sentAtMs;

protected:
    QNetworkReply *createRequest(Operation op, const QNetworkRequest &request, QIODevice *data) override
    {
        sentAtMs << clock.elapsed();
        return QNetworkAccessManager::createRequest(op, request, data);
    }
};

QString longText(qsizetype length)
{
    QString text;
    for (int i = 0; text.size() < length; ++i)
        text += QStringLiteral("Sentence number %1 goes on for a while. ").arg(i);
    return text.left(length);
}

QString sentence(int words)
{
    QStringList w;
    for (int i = 0; i < words; ++i)
        w << QStringLiteral("word");
    return w.join(u' ') + u'.';
}

} // namespace

// A manager that talks to a dev server with the own key "local" from an in-memory keychain.
class TestSpeechManager : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    std::unique_ptr<DevServer> m_server;
    std::unique_ptr<UserDefaults> m_defaults;
    std::unique_ptr<KeychainHelper> m_keychain;
    FakeAccount m_account;
    FakeRecords m_records;
    FakeSelection m_selection;
    RecordingNetwork m_network;
    NullAudioSink *m_sink = nullptr; // the manager's, when it plays on the null sink
    std::unique_ptr<SpeechManager> m_speech;

    // Starts a dev server with `arguments` and a manager on the null sink that talks to it.
    bool startServer(const QStringList &arguments)
    {
        m_server = std::make_unique<DevServer>();
        if (!m_server->start(QStringList{QStringLiteral("--synth"), QStringLiteral("sine")} + arguments)) {
            qWarning() << m_server->errorString();
            return false;
        }
        createManager(m_server->url());
        return true;
    }

    // A new manager for both the service and the own-key origin; on the null sink unless given a sink.
    void createManager(const QUrl &origin, std::unique_ptr<AudioSink> sink = {})
    {
        m_speech.reset();
        m_sink = nullptr;
        if (!sink) {
            auto null = std::make_unique<NullAudioSink>(NullAudioSink::Clock::Manual);
            m_sink = null.get();
            sink = std::move(null);
        }
        SpeechManager::Services services;
        services.defaults = m_defaults.get();
        services.keychain = m_keychain.get();
        services.account = &m_account;
        services.records = &m_records;
        services.selection = &m_selection;
        services.audioSink = std::move(sink);
        services.network = &m_network;
        services.serviceOrigin = origin;
        services.openAIOrigin = origin;
        m_speech = std::make_unique<SpeechManager>(std::move(services));
    }

    // Renders virtual time, `frames` a step, until the narration has been heard to its end; false
    // when it does not end, or when there is nothing left to play.
    bool playToEnd(int frames = 2400, int maxSteps = 2000)
    {
        QSignalSpy ended(m_speech.get(), &SpeechManager::playbackEnded);
        for (int i = 0; i < maxSteps && ended.isEmpty(); ++i) {
            m_sink->advance(frames);
            QCoreApplication::processEvents();
            if (!m_speech->isPlaying() && !m_speech->isProcessing() && i > 10 && ended.isEmpty() &&
                !m_speech->hasContent())
                return false;
        }
        return !ended.isEmpty();
    }
    bool waitUntilPlaying()
    {
        return QTest::qWaitFor([&] { return m_speech->isPlaying(); }, 10000);
    }
    bool waitForError()
    {
        return QTest::qWaitFor([&] { return m_speech->currentError().has_value(); }, 10000);
    }
    // An unpaced server narrating `text` at `speed` until it plays and has been recorded.
    bool narrated(const QString &text, float speed = 1.0f)
    {
        if (!startServer({QStringLiteral("--pace"), QStringLiteral("0")}))
            return false;
        m_speech->setPlaybackSpeed(speed);
        m_speech->speak(text);
        return waitUntilPlaying() && QTest::qWaitFor([&] { return m_records.sessions.size() == 1; }, 5000);
    }

    QList<QJsonObject> speechRequests(qsizetype count) const
    {
        QList<QJsonObject> speech;
        for (const QJsonObject &record : m_server->waitForRequests(count + 1, std::chrono::seconds(2))) {
            if (record.value(QStringLiteral("path")).toString() == u"/v1/audio/speech")
                speech << record;
        }
        return speech;
    }

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_dir.isValid()); }

    void init()
    {
        m_defaults = std::make_unique<UserDefaults>(m_dir.filePath(QStringLiteral("defaults.conf")));
        m_keychain = std::make_unique<KeychainHelper>(QStringLiteral("com.vantor.quillvox.test.speech"),
                                                      std::make_unique<MemorySecretStore>());
        m_keychain->save(QStringLiteral("local"), KeychainKey::openAIAPIKey);
        m_account = FakeAccount();
        m_records = FakeRecords();
        m_records.folder = m_dir.path();
        m_selection = FakeSelection();
        m_network.sentAtMs.clear();
        m_network.clock.start();
    }

    void cleanup()
    {
        m_speech.reset();
        m_server.reset();
        QFile::remove(m_dir.filePath(QStringLiteral("defaults.conf")));
    }

    void narrationRunsThroughItsStates()
    {
        QVERIFY(startServer({QStringLiteral("--pace"), QStringLiteral("0")}));
        const QString text = sentence(12);
        qsizetype heldAtStart = -1;
        connect(m_speech.get(), &SpeechManager::isPlayingChanged, this, [&] {
            if (m_speech->isPlaying() && heldAtStart < 0)
                heldAtStart = m_speech->accumulatedByteCount();
        });
        m_speech->speak(text);
        QVERIFY(m_speech->isProcessing());
        QVERIFY(m_speech->hasContent());
        QVERIFY(!m_speech->isPlaying());
        QCOMPARE(m_speech->displayedTotalTime(), m_speech->estimatedDuration(text));

        QVERIFY(waitUntilPlaying());
        QCOMPARE(heldAtStart, 3 * SpeechManager::kAudioChunkSize); // the first chunk past 0.5 s of audio
        QVERIFY(!m_speech->isProcessing());
        QVERIFY(!m_speech->currentError());
        QTRY_COMPARE(m_records.sessions.size(), 1); // recorded when the stream ends, before playback does
        QVERIFY(playToEnd());
        QVERIFY(!m_speech->isPlaying());
        QVERIFY(m_speech->hasContent());
        QCOMPARE(m_speech->currentTime(), m_speech->totalTime());

        const qsizetype bytes =
            m_server->waitForRequests(1).first().value(QStringLiteral("bodyBytesSent")).toInteger();
        QCOMPARE(m_records.sessions.first().bytes, bytes);
        QCOMPARE(m_records.sessions.first().duration, double(bytes / 2) / 24000.0);
        QCOMPARE(m_records.sessions.first().text, text);
        QCOMPARE(m_records.usage, QList<qint64>{text.size()});
        QCOMPARE(m_speech->totalTime(), double(bytes) * 0.5 / 24000.0);
        QVERIFY(m_account.deducted.isEmpty()); // own-key narrations cost no minutes

        // Played to the end: play starts again from the beginning.
        m_speech->togglePlayPause();
        QVERIFY(m_speech->isPlaying());
        QCOMPARE(m_speech->currentTime(), 0.0);
        QVERIFY(playToEnd());
        QCOMPARE(m_records.sessions.size(), 1);

        // A narration shorter than what playback waits for is played all the same.
        m_speech->setPlaybackSpeed(2.0f);
        m_speech->speak(QStringLiteral("Hi"));
        QCOMPARE(m_speech->displayedTotalTime(), 0.1); // the estimate, 0.06 s, is raised to 0.1 s
        QVERIFY(waitUntilPlaying());
        QVERIFY(playToEnd());
        QCOMPARE(m_records.sessions.size(), 2);
    }

    void serverFaultsPublishTheirError_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("description");

        QTest::newRow("401") << QStringList{"--fail-status", "401"} << "API error (401): Unauthorized";
        QTest::newRow("402") << QStringList{"--fail-status", "402"}
                             << "Low balance (7 min remaining). Add more minutes to continue.";
        QTest::newRow("dropped before head")
            << QStringList{"--drop-before-head"} << "Received invalid response from server";
        QTest::newRow("unreachable") << QStringList() << "Received invalid response from server";
    }

    void serverFaultsPublishTheirError()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, description);
        m_account.minutes = 7;
        QVERIFY(startServer(arguments));
        if (arguments.isEmpty()) { // a port nothing listens on any more
            const QUrl origin = m_server->url();
            m_server.reset();
            createManager(origin);
        }
        m_speech->speak(sentence(5));
        QVERIFY(waitForError());
        QCOMPARE(m_speech->currentErrorDescription(), description);
        QVERIFY(!m_speech->isProcessing());
        QVERIFY(!m_speech->isPlaying());
        QVERIFY(m_records.sessions.isEmpty());
        // Play with nothing received: there is nothing to play, and the error stays.
        m_speech->togglePlayPause();
        QVERIFY(!m_speech->isPlaying());
        QCOMPARE(m_speech->currentErrorDescription(), description);
    }

    void cutOffBodyPlaysAndRecordsWhatCame()
    {
        QVERIFY(startServer({"--pace", "0", "--cut-after", "30000"}));
        m_speech->speak(sentence(20));
        const double estimate = m_speech->displayedTotalTime();
        QTRY_COMPARE(m_records.sessions.size(), 1);
        QCOMPARE(m_records.sessions.first().bytes, qsizetype(30000));
        QCOMPARE(m_records.sessions.first().duration, 0.625);
        QVERIFY(!m_speech->currentError());
        QVERIFY(playToEnd());
        QCOMPARE(m_speech->totalTime(), 0.625);
        QCOMPARE(m_speech->displayedTotalTime(), estimate); // the displayed total never shrinks
    }

    void stopDuringDownloadPublishesAndRecordsNothing()
    {
        QVERIFY(startServer({"--pace", "1"}));
        m_speech->speak(sentence(40));
        QTRY_VERIFY(m_speech->accumulatedByteCount() > 0);
        QSignalSpy errors(m_speech.get(), &SpeechManager::currentErrorChanged);
        m_speech->stop();
        QVERIFY(!m_speech->hasContent());
        QVERIFY(!m_speech->isProcessing());
        m_speech->togglePlayPause(); // nothing to play after a stop
        QVERIFY(!m_speech->isPlaying());
        QTest::qWait(300);
        QCOMPARE(m_speech->accumulatedByteCount(), qsizetype(0));
        QVERIFY(errors.isEmpty());
        QVERIFY(m_records.sessions.isEmpty());
        QVERIFY(m_records.usage.isEmpty());
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
        const qint64 end = m_speech->accumulatedByteCount() / 2;
        const qint64 target = std::clamp(frames.last(), qint64(0), end);
        QSignalSpy performed(m_speech.get(), &SpeechManager::seekPerformed);
        QSignalSpy ended(m_speech.get(), &SpeechManager::playbackEnded);
        for (qint64 frame : frames) {
            m_speech->seekToFrame(frame);
            if (frame >= 0 && frame < end)
                QCOMPARE(m_speech->currentTime(), double(frame) / 24000.0);
        }
        QTRY_COMPARE(ended.size(), target == end ? 1 : 0);
        if (target == end) {
            QCOMPARE(m_speech->currentTime(), m_speech->totalTime());
            QVERIFY(!m_speech->isPlaying());
            return;
        }
        QTRY_COMPARE(performed.size(), 1);
        QCOMPARE(performed.first().first().toLongLong(), target);
        QVERIFY(m_speech->isPlaying());
        m_sink->advance(2400);
        QCoreApplication::processEvents();
        QCOMPARE(m_speech->currentPlaybackFrame(), target + 2400);
    }

    void pauseKeepsPositionAndSeekingWhilePausedStaysPaused()
    {
        QVERIFY(startServer({"--pace", "0"}));
        m_speech->speak(sentence(20));
        QVERIFY(waitUntilPlaying());
        QSignalSpy unwatched(m_speech.get(), &SpeechManager::lastLevelTimestampChanged);
        m_sink->advance(4800);
        QCoreApplication::processEvents();
        QVERIFY(unwatched.isEmpty());      // nobody shows the levels: none are measured
        m_speech->watchLevels(this, true); // as a waveform on screen does
        m_sink->advance(7200);
        QCoreApplication::processEvents();
        // Levels measured before the pause but delivered after it leave the smoothed level alone.
        m_sink->advance(4800);
        m_speech->togglePlayPause();
        QVERIFY(!m_speech->isPlaying());
        const float level = m_speech->currentAudioLevel();
        QSignalSpy measured(m_speech.get(), &SpeechManager::lastLevelTimestampChanged);
        QCoreApplication::processEvents();
        QVERIFY(!measured.isEmpty());
        QCOMPARE(m_speech->currentAudioLevel(), level);
        const qint64 position = m_speech->currentPlaybackFrame();
        m_sink->advance(24000);
        QCoreApplication::processEvents();
        QCOMPARE(m_speech->currentPlaybackFrame(), position);

        QSignalSpy performed(m_speech.get(), &SpeechManager::seekPerformed);
        m_speech->seekToFrame(4800);
        QTRY_COMPARE(performed.size(), 1);
        QVERIFY(!m_speech->isPlaying());
        m_sink->advance(24000);
        QCoreApplication::processEvents();
        QCOMPARE(m_speech->currentPlaybackFrame(), qint64(4800));
        m_speech->togglePlayPause();
        QVERIFY(m_speech->isPlaying());
        QVERIFY(playToEnd());
    }

    void doubleSpeedHalvesTheTime()
    {
        QVERIFY(narrated(sentence(25), 2.0f));
        const qint64 frames = m_speech->accumulatedByteCount() / 2;
        QSignalSpy ended(m_speech.get(), &SpeechManager::playbackEnded);
        qint64 rendered = 0;
        while (ended.isEmpty() && rendered < frames) {
            m_sink->advance(240);
            rendered += 240;
            QCoreApplication::processEvents();
        }
        QVERIFY(!ended.isEmpty());
        const double ratio = double(rendered) / (double(frames) / 2.0);
        QVERIFY2(ratio > 0.95 && ratio < 1.1, qPrintable(QString::number(ratio)));
    }

    void previewAndReplayRecordNothing()
    {
        createManager(QUrl(QStringLiteral("http://127.0.0.1:9")));
        m_speech->playVoicePreview(QStringLiteral("marin"));
        QVERIFY(waitUntilPlaying());
        QVERIFY(m_speech->totalTime() > 1.0);
        QVERIFY(playToEnd());

        const QUuid id = QUuid::createUuid();
        QFile file(m_records.audioFile(id));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(QByteArray(48000, '\x10'));
        file.close();
        m_records.texts[id] = QStringLiteral("One. Two.");
        m_speech->playFromHistory(id);
        QVERIFY(m_speech->isPlaying());
        QCOMPARE(m_speech->currentPlayingSessionId(), id);
        QCOMPARE(m_speech->totalTime(), 1.0);
        // Followed along as it was heard: "Two." starts 5 of 9 characters in.
        QCOMPARE(m_speech->followAlong()->sentence(), QStringLiteral("One."));
        m_speech->seekToFrame(13334);
        QCOMPARE(m_speech->followAlong()->sentence(), QStringLiteral("Two."));
        QVERIFY(playToEnd());
        QCOMPARE(m_speech->currentPlayingSessionId(), id);
        QVERIFY(m_records.sessions.isEmpty());
        QVERIFY(m_records.usage.isEmpty());

        m_speech->playFromHistory(QUuid::createUuid()); // its audio file is gone
        QVERIFY(!m_speech->currentPlayingSessionId());
        QVERIFY(!m_speech->hasContent());
    }

    // One style besides the default, so that the style's own instructions are what is sent.
    void requestAsTheServerSawIt_data()
    {
        QTest::addColumn<bool>("service");
        QTest::addColumn<QString>("style");
        QTest::newRow("own key") << false << QStringLiteral("Standard");
        QTest::newRow("service, Dramatic") << true << QStringLiteral("Dramatic");
    }

    void requestAsTheServerSawIt()
    {
        QFETCH(bool, service);
        QFETCH(QString, style);
        QVERIFY(startServer({"--pace", "0"}));
        if (service) { // with just the minute a narration needs
            m_keychain->save(QStringLiteral("stored-token"), KeychainKey::accessToken);
            m_account.signedIn = true;
            m_account.token = m_server->signIn().queryItemValue(QStringLiteral("access_token"));
            m_account.balance = 60;
        }
        m_speech->setSelectedVoice(QStringLiteral("cedar"));
        m_speech->setSelectedVoiceStyleRawValue(style);
        const QString text = QStringLiteral("  Read this, exactly as it is.\n");
        m_speech->speak(text);
        // After the sign-in's own request, for the service.
        const qsizetype expected = service ? 2 : 1;
        const QList<QJsonObject> log = m_server->waitForRequests(expected, std::chrono::seconds(10));
        QCOMPARE(log.size(), expected);
        const QJsonObject request = log.last();
        QCOMPARE(request.value("method").toString(), QStringLiteral("POST"));
        QCOMPARE(request.value("path").toString(),
                 service ? QStringLiteral("/api/tts/stream") : QStringLiteral("/v1/audio/speech"));
        QCOMPARE(DevServer::header(request, u"Authorization"),
                 service ? QStringLiteral("Bearer ") + *m_account.token : QStringLiteral("Bearer local"));
        QCOMPARE(DevServer::header(request, u"Content-Type"), QStringLiteral("application/json"));

        // Exactly these members, each a string.
        QCOMPARE(DevServer::body(request),
                 (QJsonObject{{"input", text},
                              {"instructions", VoiceStyle::fromRawValue(style)->instructions()},
                              {"model", service ? "gpt-4o-mini-tts" : "gpt-4o-mini-tts-2025-12-15"},
                              {"response_format", "pcm"},
                              {"voice", "cedar"}}));

        QTRY_COMPARE(m_records.sessions.size(), 1);
        QCOMPARE(m_account.deducted.size(), service ? 1 : 0);
        if (service)
            QCOMPARE(m_account.deducted.first(), m_records.sessions.first().duration);
    }

    void checksBeforeTheRequest_data()
    {
        QTest::addColumn<QString>("setup");
        QTest::addColumn<QString>("description");

        const auto row = [](const char *setup, const char *description) {
            QTest::newRow(setup) << QString::fromLatin1(setup) << QString::fromLatin1(description);
        };
        row("no key", "OpenAI API key is missing. Please add it in Settings.");
        row("empty key", "OpenAI API key is missing. Please add it in Settings.");
        row("token, signed out", "Please sign in to use narration.");
        row("59 s", "Low balance (0 min remaining). Add more minutes to continue.");
        row("no valid token", "Please sign in to use narration.");
        row("blank text", ""); // returns before stopping what plays
    }

    void checksBeforeTheRequest()
    {
        QFETCH(QString, setup);
        QFETCH(QString, description);
        // A narration is loaded first: a failed check comes after stop(), so it is gone afterwards.
        QVERIFY(narrated(sentence(5)));

        if (setup == u"no key")
            m_keychain->remove(KeychainKey::openAIAPIKey);
        if (setup == u"empty key")
            m_keychain->save(QString(), KeychainKey::openAIAPIKey);
        if (setup.startsWith(u"token") || setup == u"59 s" || setup == u"no valid token")
            m_keychain->save(QStringLiteral("stored-token"), KeychainKey::accessToken);
        m_account.signedIn = setup != u"token, signed out";
        if (setup == u"59 s") {
            m_account.balance = 59;
            m_account.minutes = 0;
        }
        if (setup == u"no valid token")
            m_account.token.reset();

        if (description.isEmpty()) {
            m_speech->speak(QStringLiteral(" \n\t "));
            QVERIFY(m_speech->isPlaying());
            QVERIFY(m_speech->hasContent());
        } else {
            m_speech->speak(sentence(6));
            QVERIFY(waitForError());
            QCOMPARE(m_speech->currentErrorDescription(), description);
            QVERIFY(!m_speech->hasContent());
        }
        QCOMPARE(m_server->waitForRequests(2, std::chrono::milliseconds(300)).size(), 1);
    }

    void selectionTrigger_data()
    {
        QTest::addColumn<bool>("trusted");
        QTest::addColumn<QString>("loaded"); // text narrated before the trigger, "" for none
        QTest::addColumn<QString>("after");  // "playing", "stopped" or "ended"
        QTest::addColumn<QString>("selection");
        QTest::addColumn<QString>("expect"); // "error:<id>", "paused", "restarted", "nothing", "request"

        const auto row = [](const char *name, bool trusted, const char *loaded, const char *after,
                            const char *selection, const char *expect) {
            QTest::newRow(name) << trusted << QString::fromLatin1(loaded) << QString::fromLatin1(after)
                                << QString::fromLatin1(selection) << QString::fromLatin1(expect);
        };
        row("not trusted", false, "", "", "text", "error:accessibilityPermissionMissing");
        row("nothing selected", true, "", "", "", "error:noTextSelected");
        row("whitespace only", true, "", "", "  \n ", "error:noTextSelected");
        row("same text toggles", true, "Hello world", "playing", "  hello,  WORLD! ", "paused");
        row("nothing selected toggles", true, "Hello world", "playing", "", "paused");
        row("same text after the end restarts", true, "Hello world", "ended", "Hello world", "restarted");
        row("same text after a stop does nothing", true, "Hello world", "stopped", "Hello world", "nothing");
        row("new text narrates", true, "Hello world", "playing", "Something else", "request");
    }

    void selectionTrigger()
    {
        QFETCH(bool, trusted);
        QFETCH(QString, loaded);
        QFETCH(QString, after);
        QFETCH(QString, selection);
        QFETCH(QString, expect);
        if (loaded.isEmpty()) {
            QVERIFY(startServer({"--pace", "0"}));
        } else {
            QVERIFY(narrated(loaded));
            if (after == u"ended")
                QVERIFY(playToEnd());
            if (after == u"stopped")
                m_speech->stop();
        }
        m_selection.trusted = trusted;
        m_selection.selection = selection.isEmpty() ? std::nullopt : std::optional<QString>(selection);
        m_speech->setCurrentError(std::nullopt);
        m_speech->handleNarrationTrigger();
        QCoreApplication::processEvents();

        if (expect.startsWith(u"error:")) {
            QCOMPARE(m_speech->currentErrorId(), expect.mid(6));
        } else if (expect == u"paused") {
            QVERIFY(!m_speech->isPlaying());
            QVERIFY(m_speech->hasContent());
        } else if (expect == u"restarted") {
            QVERIFY(m_speech->isPlaying());
            QCOMPARE(m_speech->currentTime(), 0.0);
        } else if (expect == u"nothing") {
            QVERIFY(!m_speech->currentError());
            QVERIFY(!m_speech->hasContent());
        }
        const qsizetype requests = loaded.isEmpty() ? 0 : 1;
        QCOMPARE(m_server->waitForRequests(requests + 1, std::chrono::milliseconds(300)).size(),
                 requests + (expect == u"request" ? 1 : 0));
    }

    void persistedChoicesFallBack_data()
    {
        QTest::addColumn<QStringList>("stored"); // voice, style, appearance and theme
        QTest::addColumn<QStringList>("expected");

        QTest::newRow("missing") << QStringList() << QStringList{"marin", "Standard", "Dark", "Default"};
        const QStringList stored{"shimmer", "Bedtime Story", "Light", "Ocean"};
        QTest::newRow("stored") << stored << stored;
        QTest::newRow("unknown") << QStringList{"robot", "bedtime story", "light", "Neon"}
                                 << QStringList{"robot", "Standard", "Dark", "Default"};
    }

    void persistedChoicesFallBack()
    {
        QFETCH(QStringList, stored);
        QFETCH(QStringList, expected);
        const QStringList keys{"selectedVoice", "selectedVoiceStyle", "widgetAppearance", "widgetTheme"};
        for (qsizetype i = 0; i < stored.size(); ++i)
            m_defaults->setString(keys[i], stored[i]);
        createManager(QUrl(QStringLiteral("http://127.0.0.1:9")));
        QCOMPARE(QStringList({m_speech->selectedVoice(), m_speech->selectedVoiceStyleRawValue(),
                              m_speech->widgetAppearanceRawValue(), m_speech->widgetThemeRawValue()}),
                 expected);
        m_speech->setSelectedVoiceStyle(VoiceStyle::Dramatic);
        QCOMPARE(m_defaults->string(QStringLiteral("selectedVoiceStyle")), QStringLiteral("Dramatic"));
        m_speech->useVoiceForThisRun(QStringLiteral("onyx"));
        QCOMPARE(m_defaults->string(QStringLiteral("selectedVoice")).value_or(QString()), stored.value(0));
    }
    // tst_tokenorigins checks the refusal for each origin that carries tokens; here, that the program
    // stops on it before doing anything else.
    void startRefusesPlainHttpForTokens()
    {
        const QString variable = QStringLiteral("QUILLVOX_AUTH_ORIGIN");
        QProcess app;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(variable, QStringLiteral("http://quillvox.example"));
        env.insert(QStringLiteral("QUILLVOX_AUDIO_OUTPUT"), QStringLiteral("null"));
        app.setProcessEnvironment(env);
        app.start(QStringLiteral(QUILLVOX_EXECUTABLE), {QStringLiteral("--speak"), QStringLiteral("Hello.")});
        QVERIFY(app.waitForFinished(30000));
        QCOMPARE(app.exitCode(), 1);
        QCOMPARE(
            QString::fromUtf8(app.readAllStandardError()).section(u'\n', 0, 0),
            QStringLiteral("quillvox: %1 is http://quillvox.example, but sign-in tokens are only sent over "
                           "https:// (plain http only to this computer: localhost, 127.0.0.1 or ::1).")
                .arg(variable));
    }

    void longTextPlaysAsOneNarration()
    {
        // Fast enough to finish soon, slow enough that a piece streams for seconds: a next request that
        // waited for the end of the previous stream would show in the send times.
        QVERIFY(startServer({QStringLiteral("--pace"), QStringLiteral("100")}));
        const QString text = longText(10000);
        QList<QPair<qint64, double>> totals; // when, and the total then
        connect(m_speech.get(), &SpeechManager::totalTimeChanged, this, [&] {
            totals.append({m_network.clock.elapsed(), m_speech->totalTime()});
        });
        m_speech->speak(text);
        QTRY_COMPARE_WITH_TIMEOUT(m_records.sessions.size(), 1, 120000);

        // The log is in the order the responses ended; the pieces are put back in the text's order.
        QList<QJsonObject> log = speechRequests(3);
        QCOMPARE(log.size(), 3);
        std::sort(log.begin(), log.end(), [&](const QJsonObject &a, const QJsonObject &b) {
            return text.indexOf(DevServer::input(a)) < text.indexOf(DevServer::input(b));
        });
        QStringList inputs;
        qint64 bytes = 0;
        QCOMPARE(m_network.sentAtMs.size(), 3);
        for (const QJsonObject &record : log) {
            QCOMPARE(record.value(QStringLiteral("status")).toInt(), 200);
            inputs << DevServer::input(record);
            QVERIFY(TextPieces::codePointCount(inputs.last()) <= 4096);
            bytes += record.value(QStringLiteral("bodyBytesSent")).toInteger();
            if (inputs.size() == 3)
                break;
            // The next request left before the last chunk of this piece had arrived.
            const double lastChunk = double(bytes - 9600) / 48000.0;
            const auto arrived = std::find_if(totals.begin(), totals.end(),
                                              [&](const auto &total) { return total.second >= lastChunk; });
            QVERIFY(arrived != totals.end());
            QCOMPARE_LT(m_network.sentAtMs[inputs.size()], arrived->first);
        }
        QCOMPARE(inputs.join(QString()), text);

        // One narration: one record with the whole text and all the audio, one usage count, a total
        // that only grew.
        QCOMPARE(m_records.sessions.first().text, text);
        QCOMPARE(m_records.sessions.first().bytes, bytes);
        QCOMPARE(m_records.usage, QList<qint64>{NarrationText::characterCount(text)});
        QCOMPARE(m_speech->totalTime(), double(bytes) / 48000.0);
        QVERIFY(std::is_sorted(totals.begin(), totals.end(),
                               [](const auto &a, const auto &b) { return a.second < b.second; }));
        QVERIFY(playToEnd(48000));
        QVERIFY(!m_speech->currentError());
    }

    // A piece's first sentence starts exactly where its audio starts; at 2.0x the position still
    // counts narration frames.
    void followAlongTracksTheHeardSentence()
    {
        QVERIFY(startServer({QStringLiteral("--pace"), QStringLiteral("0")}));
        const QString text = longText(5000);
        m_speech->setPlaybackSpeed(2.0f);
        m_speech->speak(text);
        QTRY_COMPARE_WITH_TIMEOUT(m_records.sessions.size(), 1, 60000);
        QList<QJsonObject> log = speechRequests(2);
        QCOMPARE(log.size(), 2);
        if (!text.startsWith(DevServer::input(log[0])))
            log.swapItemsAt(0, 1);
        const qint64 pieceStart = log[0].value(QStringLiteral("bodyBytesSent")).toInteger() / 2;
        const FollowAlong &follow = *m_speech->followAlong();
        qsizetype first = 0;
        while (first < follow.count() && follow.startFrame(first) < pieceStart)
            ++first;
        QVERIFY(first < follow.count());
        QCOMPARE(follow.startFrame(first), pieceStart);
        QVERIFY(DevServer::input(log[1]).trimmed().startsWith(follow.sentenceAt(first).text));

        QSignalSpy performed(m_speech.get(), &SpeechManager::seekPerformed);
        m_speech->seekToFrame(pieceStart - 24000);
        QCOMPARE(follow.currentIndex(), first - 1);
        QTRY_COMPARE(performed.size(), 1);
        m_sink->advance(6000); // half a second of narration at 2.0x
        QTest::qWait(300);     // a progress tick
        QCOMPARE(follow.currentIndex(), first - 1);
        m_sink->advance(12000);
        QTRY_COMPARE(follow.currentIndex(), first);
        QCOMPARE(follow.sentence(), follow.sentenceAt(first).text);
        m_speech->seekToFrame(0);
        QCOMPARE(follow.currentIndex(), 0);
        m_speech->stop();
        QCOMPARE(follow.sentence(), QString());
    }

    void failingPieceEndsTheNarrationAfterWhatCame()
    {
        QVERIFY(startServer({QStringLiteral("--pace"), QStringLiteral("0")}));
        m_server->control(QStringLiteral("/dev/fail"),
                          {{"route", "speech"}, {"status", 500}, {"count", 1}, {"after", 1}});
        const QString text = longText(10000);
        m_speech->speak(text);
        QTRY_COMPARE_WITH_TIMEOUT(m_records.sessions.size(), 1, 60000);

        // What came before the failure plays first, with no error shown yet.
        QVERIFY(m_speech->isPlaying());
        QVERIFY(!m_speech->currentError());
        // The log is written as responses end: the failed second piece may end before the first.
        QList<QJsonObject> log = speechRequests(2);
        QCOMPARE(log.size(), 2);
        if (log[0].value(QStringLiteral("status")).toInt() != 200)
            log.swapItemsAt(0, 1);
        QCOMPARE(log[0].value(QStringLiteral("status")).toInt(), 200);
        QCOMPARE(log[1].value(QStringLiteral("status")).toInt(), 500);
        QVERIFY(text.startsWith(DevServer::input(log[0])));
        const qint64 heard = log[0].value(QStringLiteral("bodyBytesSent")).toInteger();
        QCOMPARE(m_records.sessions.first().text, text);
        QCOMPARE(m_records.sessions.first().bytes, heard);
        QCOMPARE(m_records.usage.size(), 1);

        QVERIFY(playToEnd(48000));
        QCOMPARE(m_speech->currentErrorDescription(),
                 QStringLiteral("API error (500): Internal Server Error"));
        QVERIFY(!m_speech->isPlaying());
        QVERIFY(m_speech->hasContent());
        QCOMPARE(m_network.sentAtMs.size(), 2); // nothing after the failed piece
    }

    void soundServerGoesAwayMidNarration()
    {
        if (QStandardPaths::findExecutable(QStringLiteral("pulseaudio")).isEmpty())
            QSKIP("pulseaudio is not installed");
        PulseServer pulse(m_dir.filePath(QStringLiteral("pulse")));
        QVERIFY(pulse.start());
        PulseServerEnvironment environment(pulse.address());
        QVERIFY(startServer({QStringLiteral("--pace"), QStringLiteral("0")}));
        createManager(m_server->url(), std::make_unique<PulseAudioSink>(2000));
        QVERIFY(!m_speech->currentError());

        m_speech->speak(longText(300));
        QTRY_VERIFY_WITH_TIMEOUT(m_speech->isPlaying(), 20000);
        QTRY_COMPARE_WITH_TIMEOUT(m_records.sessions.size(), 1, 20000);
        QTRY_VERIFY_WITH_TIMEOUT(m_speech->currentPlaybackFrame() > 24000, 10000);
        const qsizetype audio = m_speech->accumulatedByteCount();

        pulse.kill();
        QTRY_VERIFY_WITH_TIMEOUT(m_speech->currentError().has_value(), 10000);
        QVERIFY2(m_speech->currentErrorDescription().startsWith(
                     QStringLiteral("Audio engine failed: PulseAudio: ")),
                 qPrintable(m_speech->currentErrorDescription()));
        QCOMPARE(m_speech->currentError()->kind(), SpeechError::audioEngineFailure);
        QVERIFY(!m_speech->isPlaying());
        QVERIFY(m_speech->hasContent());
        QCOMPARE(m_speech->accumulatedByteCount(), audio);
        QCOMPARE(m_records.sessions.size(), 1);
        const qint64 place = m_speech->currentPlaybackFrame();
        QVERIFY2(place > 24000 && place < audio / 2, qPrintable(QString::number(place)));
        QCOMPARE(m_speech->currentTime(), double(place) / 24000.0);

        // Play with no server: the same error, the same place.
        m_speech->togglePlayPause();
        QVERIFY(!m_speech->isPlaying());
        QCOMPARE(m_speech->currentError()->kind(), SpeechError::audioEngineFailure);
        QCOMPARE(m_speech->currentPlaybackFrame(), place);

        // A server is back: nothing happens until play, which goes on from the same place.
        QVERIFY(pulse.start());
        QVERIFY(pulse.startRecorder());
        QVERIFY(!m_speech->isPlaying());
        m_speech->togglePlayPause();
        QVERIFY(m_speech->isPlaying());
        QVERIFY(!m_speech->currentError());
        QTRY_VERIFY_WITH_TIMEOUT(m_speech->currentPlaybackFrame() > place + 12000, 10000);
        QVERIFY(m_speech->currentPlaybackFrame() < place + 5 * 24000);
        QTRY_VERIFY_WITH_TIMEOUT(findSound(pulse.recorded()).start >= 0, 5000);
        QCOMPARE(m_records.sessions.size(), 1);

        // And the next narration plays as usual.
        m_speech->speak(longText(120));
        QTRY_VERIFY_WITH_TIMEOUT(m_speech->isPlaying(), 20000);
        QTRY_COMPARE_WITH_TIMEOUT(m_records.sessions.size(), 2, 20000);
    }
};

QTEST_GUILESS_MAIN(TestSpeechManager)
#include "tst_speechmanager.moc"
