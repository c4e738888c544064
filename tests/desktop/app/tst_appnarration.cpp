// SPDX-License-Identifier: GPL-3.0-or-later
// `quillvox --speak` as a user runs it: the app binary in own-key mode, real HTTP to the dev server and
// real PulseAudio, each case with a sound server of its own whose null sink is recorded.
#include "AppUnderTest.h"
#include "PulseServer.h"
#include "ToneFrequency.h"

#include <cmath>

constexpr double kBytesPerSecond = 2.0 * PulseServer::kRateHz;

const QString kSentence = QStringLiteral(
    "The quick brown fox jumps over the lazy dog, and then it runs back across the field to do it again.");

class TestAppNarration : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir{QDir::tempPath() + QStringLiteral("/qv-app-XXXXXX")};

    // The app with its sound at `pulse`, its speech from `server`, not yet started.
    static std::unique_ptr<AppUnderTest> app(const DevServer &server, const PulseServer &pulse)
    {
        auto made = std::make_unique<AppUnderTest>(AppUnderTest::Accessibility::Off);
        made->useServer(server);
        made->usePulse(pulse.address());
        return made;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        if (QStandardPaths::findExecutable(QStringLiteral("pulseaudio")).isEmpty())
            QSKIP("pulseaudio is not installed");
        // Own-key mode: the dev server's key in this test's keychain service.
        QCOMPARE(AppUnderTest().storeKey(), QString());
    }

    void playsWhatTheServerSent_data()
    {
        QTest::addColumn<QStringList>("serverOptions");
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<double>("speed");
        QTest::addColumn<double>("toneHz"); // 0: speech, no pitch to check
        QTest::newRow("speech") << QStringList{"--synth", "espeak"} << QStringList() << 1.0 << 0.0;
        // Sent faster than real time: at 2x a stream paced at 1x would run dry.
        QTest::newRow("tone-at-2x") << QStringList{"--synth", "sine", "--pace", "0"}
                                    << QStringList{"--speed", "2"} << 2.0 << 440.0;
    }

    void playsWhatTheServerSent()
    {
        QFETCH(QStringList, serverOptions);
        QFETCH(QStringList, options);
        QFETCH(double, speed);
        QFETCH(double, toneHz);

        PulseServer pulse(m_dir.filePath(QString::fromLatin1(QTest::currentDataTag())));
        QVERIFY(pulse.start());
        QVERIFY(pulse.startRecorder());
        DevServer server;
        QVERIFY2(server.start(serverOptions), qPrintable(server.errorString()));

        const AppUnderTest::Run narration =
            app(server, pulse)->run(QStringList{"--speak", kSentence} + options);
        QVERIFY2(narration.exitCode == 0, narration.err.constData());
        QTest::qWait(300); // the recorder's own latency
        pulse.stopRecorder();

        const QList<QJsonObject> log = server.waitForRequests(1);
        QCOMPARE(log.size(), 1);
        const double sent = double(log.first().value("bodyBytesSent").toInteger()) / kBytesPerSecond / speed;
        const std::vector<float> recorded = pulse.recorded();
        const Sound sound = findSound(recorded);
        QVERIFY2(sound.start >= 0, "nothing was heard");
        qInfo("heard %.3f s of %.3f s sent", sound.seconds(), sent);
        QVERIFY2(std::abs(sound.seconds() - sent) <= 0.05 * sent,
                 qPrintable(QStringLiteral("heard %1 s, sent %2 s").arg(sound.seconds()).arg(sent)));

        if (toneHz > 0) {
            // Every second of it, not just on average: a time-stretcher that lost the pitch somewhere
            // would show here.
            for (qint64 from = sound.start + 2400; from + PulseServer::kRateHz <= sound.end - 2400;
                 from += PulseServer::kRateHz) {
                const double hz =
                    toneFrequency(std::vector<float>(recorded.begin() + from,
                                                     recorded.begin() + from + PulseServer::kRateHz),
                                  PulseServer::kRateHz);
                QVERIFY2(std::abs(hz - toneHz) <= 0.01 * toneHz,
                         qPrintable(QStringLiteral("%1 Hz at sample %2").arg(hz).arg(from - sound.start)));
            }
        }
    }

    void soundServerDiesMidNarration()
    {
        PulseServer pulse(m_dir.filePath("killed"));
        QVERIFY(pulse.start());
        QVERIFY(pulse.startRecorder());
        DevServer server;
        QVERIFY2(server.start({"--synth", "sine"}), qPrintable(server.errorString()));

        const auto narration = app(server, pulse);
        narration->launch({"--speak", QStringList(3, kSentence).join(u' ')});
        QTRY_VERIFY_WITH_TIMEOUT(findSound(pulse.recorded()).seconds() > 0.5, 20000);
        pulse.kill();

        QVERIFY2(narration->process().waitForFinished(10000),
                 "the app still runs 10 s after its sound server died");
        const QString errors = narration->output();
        QCOMPARE(narration->process().exitStatus(), QProcess::NormalExit);
        QCOMPARE(narration->process().exitCode(), 1);
        QVERIFY2(errors.contains(QStringLiteral("Audio engine failed: PulseAudio")), qPrintable(errors));
    }
};

QTEST_GUILESS_MAIN(TestAppNarration)
#include "tst_appnarration.moc"
