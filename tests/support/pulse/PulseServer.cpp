// SPDX-License-Identifier: GPL-3.0-or-later
#include "PulseServer.h"
#include "StopProcess.h"

#include <QDir>
#include <QTest>

#include <sys/prctl.h>

#include <cmath>
#include <csignal>
#include <cstring>

void dieWithTheTest(QProcess &process)
{
    process.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGKILL); });
}

PulseServer::PulseServer(const QString &dir)
    : m_dir(dir)
{
    dieWithTheTest(m_daemon);
    dieWithTheTest(m_recorder);
}

PulseServer::~PulseServer()
{
    stopRecorder();
    kill();
}

QString PulseServer::address() const
{
    return QStringLiteral("unix:%1/pulse.sock").arg(m_dir);
}

bool PulseServer::start()
{
    const QString runtime = m_dir + QStringLiteral("/run");
    QDir().mkpath(runtime);
    QFile::setPermissions(runtime, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime);
    env.insert(QStringLiteral("HOME"), m_dir);
    // Not the session's bus or display: the rig's own daemon holds the bus names.
    env.remove(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));
    env.remove(QStringLiteral("DISPLAY"));
    m_daemon.setProcessEnvironment(env);
    m_daemon.setStandardOutputFile(m_dir + QStringLiteral("/daemon.log"), QIODevice::Append);
    m_daemon.setStandardErrorFile(m_dir + QStringLiteral("/daemon.log"), QIODevice::Append);
    m_daemon.start(QStringLiteral("pulseaudio"),
                   {"--daemonize=no", "-n", "--exit-idle-time=-1", "--use-pid-file=no", "--log-target=stderr",
                    "--load=module-null-sink sink_name=t rate=24000 channels=1 format=float32le "
                    "sink_properties=device.description=t",
                    "--load=module-native-protocol-unix auth-anonymous=1 socket=" + m_dir + "/pulse.sock"});
    const auto answers = [this] {
        QProcess pactl;
        pactl.start(QStringLiteral("pactl"), {"-s", address(), "info"});
        return pactl.waitForFinished(2000) && pactl.exitStatus() == QProcess::NormalExit &&
               pactl.exitCode() == 0;
    };
    return m_daemon.waitForStarted(5000) && QTest::qWaitFor(answers, 20000);
}

void PulseServer::kill()
{
    if (m_daemon.state() == QProcess::NotRunning)
        return;
    ::kill(pid_t(m_daemon.processId()), SIGCONT);
    m_daemon.kill();
    m_daemon.waitForFinished(5000);
}

void PulseServer::signal(int number)
{
    ::kill(pid_t(m_daemon.processId()), number);
}

bool PulseServer::startRecorder()
{
    m_recording = m_dir + QStringLiteral("/sink.f32");
    m_recorder.setStandardOutputFile(m_recording);
    m_recorder.setStandardErrorFile(m_dir + QStringLiteral("/parec.log"));
    m_recorder.start(QStringLiteral("parec"),
                     {"-s", address(), "-d", "t.monitor", "--rate=24000", "--channels=1",
                      "--format=float32le", "--latency-msec=10", "--raw"});
    if (!m_recorder.waitForStarted(5000))
        return false;
    QTest::qWait(2200);
    return true;
}

void PulseServer::stopRecorder()
{
    stopProcess(m_recorder, 5000);
}

std::vector<float> PulseServer::recorded() const
{
    QFile file(m_recording);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray bytes = file.readAll();
    std::vector<float> samples(std::size_t(bytes.size()) / sizeof(float));
    std::memcpy(samples.data(), bytes.constData(), samples.size() * sizeof(float));
    return samples;
}

Sound findSound(const std::vector<float> &samples, float threshold)
{
    Sound sound;
    for (std::size_t i = 0; i < samples.size(); ++i) {
        if (std::abs(samples[i]) > threshold) {
            if (sound.start < 0)
                sound.start = qint64(i);
            sound.end = qint64(i) + 1;
        }
    }
    return sound;
}
