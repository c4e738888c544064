// SPDX-License-Identifier: GPL-3.0-or-later
#include "PulseServer.h"

#include "platform/pulse/PulseAudioSink.h"
#include "speech/AudioEngine.h"

#include <QDir>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <QtEndian>

#include <cmath>
#include <numbers>
#include <vector>

namespace {

constexpr qint64 kRate = AudioEngine::kSampleRateHz;

QByteArray sine(qint64 frames, double hz, double amplitude)
{
    QByteArray bytes(frames * 2, Qt::Uninitialized);
    for (qint64 i = 0; i < frames; ++i) {
        const double v = amplitude * std::sin(2 * std::numbers::pi * hz * double(i) / kRate);
        qToLittleEndian<qint16>(static_cast<qint16>(std::lround(v * 32767)), bytes.data() + 2 * i);
    }
    return bytes;
}

class Collector
{
public:
    explicit Collector(AudioEngine &engine)
    {
        QObject::connect(&engine, &AudioEngine::bufferCompleted, [this](quint64 t) { completed.append(t); });
        QObject::connect(&engine, &AudioEngine::failed, [this](const QString &r) { failures.append(r); });
    }
    QList<quint64> completed;
    QStringList failures;
};

qsizetype scheduleAll(AudioEngine &engine, const QByteArray &audio)
{
    qsizetype count = 0;
    for (qsizetype offset = 0; offset < audio.size(); offset += 9600)
        engine.scheduleBuffer(audio, offset, std::min<qsizetype>(9600, audio.size() - offset),
                              quint64(++count));
    engine.markEndOfInput();
    return count;
}

} // namespace

class TestPulseAudioSink : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        if (QStandardPaths::findExecutable(QStringLiteral("pulseaudio")).isEmpty())
            QSKIP("pulseaudio is not installed");
    }

    void killedServerIsReportedAndReconnected()
    {
        const QString dir = m_dir.filePath(QStringLiteral("killed"));
        auto server = std::make_unique<PulseServer>(dir);
        QVERIFY(server->start());
        PulseServerEnvironment env(server->address());

        AudioEngine engine(std::make_unique<PulseAudioSink>(2000));
        Collector events(engine);
        QVERIFY(engine.start());
        scheduleAll(engine, sine(10 * kRate, 440, 0.5));
        engine.play();
        QTRY_VERIFY_WITH_TIMEOUT(engine.sampleTime().value_or(0) > kRate / 4, 10000);

        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("audio output lost"));
        server->kill();
        QTRY_COMPARE_WITH_TIMEOUT(events.failures.size(), 1, 10000);
        QVERIFY2(events.failures.first().startsWith(QStringLiteral("PulseAudio: ")),
                 qPrintable(events.failures.first()));
        QVERIFY(!engine.isRunning());
        QVERIFY(!engine.isPlaying());
        QVERIFY(engine.sampleTime() > kRate / 4); // where a narration goes on from
        engine.pause();
        engine.stop();
        QVERIFY(!engine.sampleTime());

        // No server: start() gives up at once and says why.
        QString error;
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("audio output unavailable"));
        QVERIFY(!engine.start(&error));
        QVERIFY2(error.startsWith(QStringLiteral("PulseAudio: ")), qPrintable(error));

        server = std::make_unique<PulseServer>(dir);
        QVERIFY(server->start());
        QVERIFY2(engine.start(&error), qPrintable(error));
        events.completed.clear();
        const qsizetype count = scheduleAll(engine, sine(kRate / 2, 440, 0.5));
        engine.play();
        QTRY_COMPARE_WITH_TIMEOUT(events.completed.size(), count, 10000);
        QCOMPARE(events.failures.size(), 1);
    }

    void unresponsiveServerDoesNotHang()
    {
        PulseServer server(m_dir.filePath(QStringLiteral("stopped")));
        QVERIFY(server.start());
        PulseServerEnvironment env(server.address());
        server.suspend();

        AudioEngine engine(std::make_unique<PulseAudioSink>(1000));
        QString error;
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("audio output unavailable"));
        QVERIFY(!engine.start(&error));
        QVERIFY2(error.contains(QStringLiteral("did not answer")), qPrintable(error));
        QVERIFY(!engine.isRunning());

        server.resume();
        QVERIFY2(engine.start(&error), qPrintable(error));
    }

private:
    QTemporaryDir m_dir{QDir::tempPath() + QStringLiteral("/qv-pulse-XXXXXX")};
};

QTEST_GUILESS_MAIN(TestPulseAudioSink)
#include "tst_pulseaudiosink.moc"
