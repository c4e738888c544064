// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/pulse/PulseAudioSink.h"
#include "speech/AudioEngine.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <QtEndian>

#include <cmath>
#include <sys/prctl.h>

#include <csignal>
#include <cstring>
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

// A crashed test must not leave daemons behind.
void dieWithTheTest(QProcess &process)
{
    process.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGKILL); });
}

// A PulseAudio daemon of the test's own (so that it can be killed), with a null sink at the stream's
// format and a recorder on its monitor.
class PulseServer
{
public:
    explicit PulseServer(const QString &dir)
        : m_dir(dir)
    {
        dieWithTheTest(m_daemon);
        dieWithTheTest(m_recorder);
    }
    ~PulseServer()
    {
        stopRecorder();
        kill();
    }

    QString address() const { return QStringLiteral("unix:%1/pulse.sock").arg(m_dir); }

    bool start()
    {
        QDir().mkpath(m_dir + QStringLiteral("/run"));
        QFile::setPermissions(m_dir + QStringLiteral("/run"),
                              QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("XDG_RUNTIME_DIR"), m_dir + QStringLiteral("/run"));
        env.insert(QStringLiteral("HOME"), m_dir);
        // Not the session's bus or display: the rig's own daemon holds the bus names.
        env.remove(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));
        env.remove(QStringLiteral("DISPLAY"));
        m_daemon.setProcessEnvironment(env);
        m_daemon.setStandardOutputFile(m_dir + QStringLiteral("/daemon.log"), QIODevice::Append);
        m_daemon.setStandardErrorFile(m_dir + QStringLiteral("/daemon.log"), QIODevice::Append);
        m_daemon.start(
            QStringLiteral("pulseaudio"),
            {QStringLiteral("--daemonize=no"), QStringLiteral("-n"), QStringLiteral("--exit-idle-time=-1"),
             QStringLiteral("--use-pid-file=no"), QStringLiteral("--log-target=stderr"),
             QStringLiteral("--load=module-null-sink sink_name=t rate=24000 channels=1 "
                            "format=float32le sink_properties=device.description=t"),
             QStringLiteral("--load=module-native-protocol-unix auth-anonymous=1 socket=%1/pulse.sock")
                 .arg(m_dir)});
        if (!m_daemon.waitForStarted(5000))
            return false;
        for (int i = 0; i < 100; ++i) {
            QProcess pactl;
            pactl.start(QStringLiteral("pactl"), {QStringLiteral("-s"), address(), QStringLiteral("info")});
            if (pactl.waitForFinished(2000) && pactl.exitStatus() == QProcess::NormalExit &&
                pactl.exitCode() == 0)
                return true;
            QTest::qWait(100);
        }
        return false;
    }

    void kill()
    {
        if (m_daemon.state() == QProcess::NotRunning)
            return;
        ::kill(pid_t(m_daemon.processId()), SIGCONT);
        m_daemon.kill();
        m_daemon.waitForFinished(5000);
    }

    void suspend() { ::kill(pid_t(m_daemon.processId()), SIGSTOP); }
    void resume() { ::kill(pid_t(m_daemon.processId()), SIGCONT); }

    bool startRecorder()
    {
        m_recording = m_dir + QStringLiteral("/sink.f32");
        m_recorder.setStandardOutputFile(m_recording);
        m_recorder.setStandardErrorFile(m_dir + QStringLiteral("/parec.log"));
        m_recorder.start(QStringLiteral("parec"),
                         {QStringLiteral("-s"), address(), QStringLiteral("-d"), QStringLiteral("t.monitor"),
                          QStringLiteral("--rate=24000"), QStringLiteral("--channels=1"),
                          QStringLiteral("--format=float32le"), QStringLiteral("--latency-msec=10"),
                          QStringLiteral("--raw")});
        if (!m_recorder.waitForStarted(5000))
            return false;
        // The null sink keeps its long idle blocks for up to 2 s before a recorder's latency applies.
        QTest::qWait(2200);
        return true;
    }

    void stopRecorder()
    {
        if (m_recorder.state() == QProcess::NotRunning)
            return;
        m_recorder.terminate();
        if (!m_recorder.waitForFinished(5000)) {
            m_recorder.kill();
            m_recorder.waitForFinished(5000);
        }
    }

    std::vector<float> recorded() const
    {
        QFile file(m_recording);
        if (!file.open(QIODevice::ReadOnly))
            return {};
        const QByteArray bytes = file.readAll();
        std::vector<float> samples(std::size_t(bytes.size()) / sizeof(float));
        std::memcpy(samples.data(), bytes.constData(), samples.size() * sizeof(float));
        return samples;
    }

private:
    QString m_dir;
    QProcess m_daemon;
    QProcess m_recorder;
    QString m_recording;
};

// Points libpulse (which reads it at connect time) at one server for the life of the scope.
class PulseServerEnvironment
{
public:
    explicit PulseServerEnvironment(const QString &address)
        : m_had(qEnvironmentVariableIsSet("PULSE_SERVER"))
        , m_old(qgetenv("PULSE_SERVER"))
    {
        qputenv("PULSE_SERVER", address.toLocal8Bit());
    }
    ~PulseServerEnvironment()
    {
        if (m_had)
            qputenv("PULSE_SERVER", m_old);
        else
            qunsetenv("PULSE_SERVER");
    }

private:
    bool m_had;
    QByteArray m_old;
};

struct Sound
{
    qint64 start = -1;
    qint64 end = -1;
    double seconds() const { return double(end - start) / kRate; }
};

Sound findSound(const std::vector<float> &x, float threshold = 0.05f)
{
    Sound sound;
    for (std::size_t i = 0; i < x.size(); ++i) {
        if (std::abs(x[i]) > threshold) {
            if (sound.start < 0)
                sound.start = qint64(i);
            sound.end = qint64(i) + 1;
        }
    }
    return sound;
}

double frequency(const std::vector<float> &x, qint64 from, qint64 to)
{
    int crossings = 0;
    qint64 first = 0, last = 0;
    for (qint64 i = from + 1; i < to; ++i) {
        if (x[std::size_t(i - 1)] < 0 && x[std::size_t(i)] >= 0) {
            if (crossings == 0)
                first = i;
            last = i;
            ++crossings;
        }
    }
    return crossings < 2 ? 0 : (crossings - 1) * double(kRate) / double(last - first);
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

    void playsForAsLongAsSent_data()
    {
        QTest::addColumn<float>("rate");
        QTest::addColumn<double>("narrationSeconds");
        QTest::newRow("1x") << 1.0f << 1.5;
        QTest::newRow("2x") << 2.0f << 2.0;
    }

    void playsForAsLongAsSent()
    {
        QFETCH(float, rate);
        QFETCH(double, narrationSeconds);

        PulseServer server(m_dir.filePath(QString::fromLatin1(QTest::currentDataTag())));
        QVERIFY(server.start());
        PulseServerEnvironment env(server.address());
        QVERIFY(server.startRecorder());

        AudioEngine engine(std::make_unique<PulseAudioSink>(3000));
        Collector events(engine);
        QString error;
        QVERIFY2(engine.start(&error), qPrintable(error));
        engine.setRate(rate);
        engine.prepare();
        const qsizetype count = scheduleAll(engine, sine(qint64(narrationSeconds * kRate), 440, 0.5));
        engine.play();
        QTRY_COMPARE_WITH_TIMEOUT(events.completed.size(), count, 20000);
        QCOMPARE(engine.sampleTime().value_or(-1), qint64(narrationSeconds * kRate));
        QTest::qWait(300); // the recorder's own latency
        engine.stop();
        server.stopRecorder();
        QVERIFY(events.failures.isEmpty());

        const std::vector<float> recorded = server.recorded();
        const Sound sound = findSound(recorded);
        QVERIFY2(sound.start >= 0, "nothing was recorded");
        const double expected = narrationSeconds / rate;
        QVERIFY2(std::abs(sound.seconds() - expected) <= 0.05 * expected,
                 qPrintable(QStringLiteral("heard %1 s, sent %2 s").arg(sound.seconds()).arg(expected)));
        const double hz = frequency(recorded, sound.start + 2400, sound.end - 2400);
        qInfo("heard %.4f s of %.4f s sent, at %.2f Hz", sound.seconds(), expected, hz);
        QVERIFY2(std::abs(hz - 440) <= 4.4, qPrintable(QStringLiteral("%1 Hz").arg(hz)));
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
        QVERIFY(!engine.sampleTime());
        engine.pause();
        engine.stop();

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
