// SPDX-License-Identifier: GPL-3.0-or-later
// Narration when things go wrong or grow large: texts longer than one request takes, a piece failing
// midway, and the sound server going away mid-narration. Real HTTP to the dev server on loopback; the
// null sink's virtual clock, or a PulseAudio daemon of the test's own.
#include "DevServer.h"
#include "PulseServer.h"

#include "account/KeychainHelper.h"
#include "core/UserDefaults.h"
#include "platform/null/MemorySecretStore.h"
#include "platform/null/NullAudioSink.h"
#include "platform/pulse/PulseAudioSink.h"
#include "speech/NarrationServices.h"
#include "speech/NarrationText.h"
#include "speech/SpeechManager.h"
#include "speech/TextPieces.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

namespace {

class Records final : public NarrationRecords
{
public:
    struct Session
    {
        QString text;
        double duration;
        qsizetype bytes;
    };
    QList<Session> sessions;
    QList<qint64> usage;

    void addSession(const QString &text, const QString &, double durationSeconds,
                    const QByteArray &audioData) override
    {
        sessions << Session{text, durationSeconds, audioData.size()};
    }
    QString audioFile(const QUuid &) const override { return {}; }
    void recordUsage(qint64 characters) override { usage << characters; }
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

QString inputOf(const QJsonObject &record)
{
    return QJsonDocument::fromJson(record.value(QStringLiteral("body")).toString().toUtf8())
        .object()
        .value(QStringLiteral("input"))
        .toString();
}

} // namespace

class TestSpeechRobustness : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    std::unique_ptr<DevServer> m_server;
    std::unique_ptr<UserDefaults> m_defaults;
    std::unique_ptr<KeychainHelper> m_keychain;
    NoAccount m_account;
    NoSelection m_selection;
    Records m_records;
    RecordingNetwork m_network;
    NullAudioSink *m_sink = nullptr;
    std::unique_ptr<SpeechManager> m_speech;

    bool startServer(const QStringList &arguments)
    {
        m_server = std::make_unique<DevServer>();
        if (!m_server->start(QStringList{QStringLiteral("--synth"), QStringLiteral("sine")} + arguments)) {
            qWarning() << m_server->errorString();
            return false;
        }
        return true;
    }

    void createManager(std::unique_ptr<AudioSink> sink)
    {
        m_speech.reset();
        SpeechManager::Services services;
        services.defaults = m_defaults.get();
        services.keychain = m_keychain.get();
        services.account = &m_account;
        services.records = &m_records;
        services.selection = &m_selection;
        services.audioSink = std::move(sink);
        services.network = &m_network;
        services.serviceOrigin = m_server->url();
        services.openAIOrigin = m_server->url();
        m_speech = std::make_unique<SpeechManager>(std::move(services));
    }

    void createManagerOnNullSink()
    {
        auto sink = std::make_unique<NullAudioSink>(NullAudioSink::Clock::Manual);
        m_sink = sink.get();
        createManager(std::move(sink));
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

    // Renders virtual time, 2 s a step, until the narration has been heard to its end.
    bool playToEnd()
    {
        QSignalSpy ended(m_speech.get(), &SpeechManager::playbackEnded);
        for (int i = 0; i < 2000 && ended.isEmpty(); ++i) {
            m_sink->advance(48000);
            QCoreApplication::processEvents();
        }
        return !ended.isEmpty();
    }

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_dir.isValid()); }

    void init()
    {
        m_defaults = std::make_unique<UserDefaults>(m_dir.filePath(QStringLiteral("defaults.conf")));
        m_keychain = std::make_unique<KeychainHelper>(QStringLiteral("com.vantor.quillvox.test.robust"),
                                                      std::make_unique<MemorySecretStore>());
        m_keychain->save(QStringLiteral("local"), KeychainKey::openAIAPIKey);
        m_records = Records();
        m_network.sentAtMs.clear();
        m_network.clock.start();
    }

    void cleanup()
    {
        m_speech.reset();
        m_server.reset();
    }

    void startRefusesPlainHttpForTokens_data()
    {
        QTest::addColumn<QString>("variable");
        QTest::newRow("service") << "QUILLVOX_SERVICE_ORIGIN";
        QTest::newRow("auth") << "QUILLVOX_AUTH_ORIGIN";
    }

    void startRefusesPlainHttpForTokens()
    {
        QFETCH(QString, variable);
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

    void devServerRefusesAnOverlongInput_data()
    {
        QTest::addColumn<QString>("input");
        QTest::addColumn<int>("status");
        const QString emoji = QStringLiteral("\U0001F600");
        QTest::newRow("4,096") << longText(4096) << 200;
        QTest::newRow("4,096 surrogate pairs") << emoji.repeated(4096) << 200;
        QTest::newRow("4,097") << longText(4097) << 400;
    }

    void devServerRefusesAnOverlongInput()
    {
        QFETCH(QString, input);
        QFETCH(int, status);
        QCOMPARE(TextPieces::codePointCount(input), qsizetype(status == 200 ? 4096 : 4097));
        QVERIFY(startServer({QStringLiteral("--pace"), QStringLiteral("0"), QStringLiteral("--cut-after"),
                             QStringLiteral("2")}));
        QNetworkRequest request(m_server->url(QStringLiteral("/v1/audio/speech")));
        request.setRawHeader("Authorization", "Bearer local");
        request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
        const QJsonObject body{
            {"model", "m"}, {"input", input}, {"voice", "marin"}, {"response_format", "pcm"}};
        QNetworkReply *reply = m_network.post(request, QJsonDocument(body).toJson());
        QTRY_VERIFY_WITH_TIMEOUT(reply->isFinished(), 30000);
        reply->deleteLater();
        QCOMPARE(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), status);
        if (status == 400) {
            const QJsonObject error =
                QJsonDocument::fromJson(reply->readAll()).object().value(QStringLiteral("error")).toObject();
            QCOMPARE(error.value(QStringLiteral("type")).toString(), QStringLiteral("invalid_request_error"));
            QCOMPARE(error.value(QStringLiteral("param")).toString(), QStringLiteral("input"));
            QVERIFY(error.value(QStringLiteral("message")).toString().contains(QStringLiteral("4096")));
        }
    }

    void longTextPlaysAsOneNarration()
    {
        // Fast enough to finish soon, slow enough that a piece streams for seconds: a next request that
        // waited for the end of the previous stream would show in the send times.
        QVERIFY(startServer({QStringLiteral("--pace"), QStringLiteral("100")}));
        createManagerOnNullSink();
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
            return text.indexOf(inputOf(a)) < text.indexOf(inputOf(b));
        });
        QStringList inputs;
        qint64 bytes = 0;
        QCOMPARE(m_network.sentAtMs.size(), 3);
        for (const QJsonObject &record : log) {
            QCOMPARE(record.value(QStringLiteral("status")).toInt(), 200);
            inputs << inputOf(record);
            QVERIFY(TextPieces::codePointCount(inputs.last()) <= 4096);
            bytes += record.value(QStringLiteral("bodyBytesSent")).toInteger();
            if (inputs.size() == 3)
                break;
            // The next request left before the last chunk of this piece had arrived.
            const double lastChunk = double(bytes - 9600) / 48000.0;
            const auto arrived = std::find_if(totals.begin(), totals.end(),
                                              [&](const auto &total) { return total.second >= lastChunk; });
            QVERIFY(arrived != totals.end());
            QVERIFY2(m_network.sentAtMs[inputs.size()] < arrived->first,
                     qPrintable(QStringLiteral("request %1 left at %2 ms, the previous piece ended at %3 ms")
                                    .arg(inputs.size() + 1)
                                    .arg(m_network.sentAtMs[inputs.size()])
                                    .arg(arrived->first)));
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
        QVERIFY(playToEnd());
        QVERIFY(!m_speech->currentError());
    }

    void failingPieceEndsTheNarrationAfterWhatCame()
    {
        QVERIFY(startServer({QStringLiteral("--pace"), QStringLiteral("0")}));
        m_server->control(QStringLiteral("/dev/fail"),
                          {{"route", "speech"}, {"status", 500}, {"count", 1}, {"after", 1}});
        createManagerOnNullSink();
        const QString text = longText(10000);
        m_speech->speak(text);
        QTRY_COMPARE_WITH_TIMEOUT(m_records.sessions.size(), 1, 60000);

        // What came before the failure plays first, with no error shown yet.
        QVERIFY(m_speech->isPlaying());
        QVERIFY(!m_speech->currentError());
        const QList<QJsonObject> log = speechRequests(2);
        QCOMPARE(log.size(), 2);
        QVERIFY(text.startsWith(inputOf(log[0])));
        QCOMPARE(log[1].value(QStringLiteral("status")).toInt(), 500);
        const qint64 heard = log[0].value(QStringLiteral("bodyBytesSent")).toInteger();
        QCOMPARE(m_records.sessions.first().text, text);
        QCOMPARE(m_records.sessions.first().bytes, heard);
        QCOMPARE(m_records.usage.size(), 1);

        QVERIFY(playToEnd());
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
        createManager(std::make_unique<PulseAudioSink>(2000));
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

QTEST_GUILESS_MAIN(TestSpeechRobustness)
#include "tst_speechrobustness.moc"
