// SPDX-License-Identifier: GPL-3.0-or-later
// Narration when things go wrong or grow large: texts longer than one request takes, a piece failing
// midway, and the sound server going away mid-narration. Real HTTP to the dev server on loopback; the
// null sink's virtual clock, or a PulseAudio daemon of the test's own.
#include "PulseServer.h"
#include "SpeechFixture.h"

#include "platform/pulse/PulseAudioSink.h"
#include "speech/NarrationText.h"
#include "speech/TextPieces.h"

#include <QElapsedTimer>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

namespace {

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

} // namespace

class TestSpeechRobustness : public SpeechFixture
{
    Q_OBJECT

    RecordingNetwork m_recording;

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
        setUpSpeech();
        m_network = &m_recording;
        m_recording.sentAtMs.clear();
        m_recording.clock.start();
    }

    void cleanup() { tearDownSpeech(); }

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
            totals.append({m_recording.clock.elapsed(), m_speech->totalTime()});
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
        QCOMPARE(m_recording.sentAtMs.size(), 3);
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
            QVERIFY2(m_recording.sentAtMs[inputs.size()] < arrived->first,
                     qPrintable(QStringLiteral("request %1 left at %2 ms, the previous piece ended at %3 ms")
                                    .arg(inputs.size() + 1)
                                    .arg(m_recording.sentAtMs[inputs.size()])
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
        QVERIFY(playToEnd(48000));
        QVERIFY(!m_speech->currentError());
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
        QCOMPARE(m_recording.sentAtMs.size(), 2); // nothing after the failed piece
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

QTEST_GUILESS_MAIN(TestSpeechRobustness)
#include "tst_speechrobustness.moc"
