// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QProcess>

#include <optional>
#include <vector>

// Makes a child process die with this one, so that a crashed test leaves no daemons behind. Call it
// before start().
void dieWithTheTest(QProcess &process);

// A PulseAudio daemon of the test's own (so that it can be killed or stopped), with a null sink "t" at
// the stream's format (float32 mono 24 kHz) and a recorder on its monitor "t.monitor".
class PulseServer
{
public:
    static constexpr int kRateHz = 24000;

    // `dir` holds the socket, the daemon's runtime folder and logs, and the recording; no whitespace in
    // it, since server addresses and module arguments are split at whitespace.
    explicit PulseServer(const QString &dir);
    ~PulseServer();
    PulseServer(const PulseServer &) = delete;
    PulseServer &operator=(const PulseServer &) = delete;

    QString address() const;

    bool start();
    // SIGKILL, as a crashing sound server.
    void kill();
    // SIGSTOP holds it, SIGCONT lets it go on.
    void signal(int number);

    // Records t.monitor into a file. The null sink keeps its long idle blocks for up to 2 s before a
    // recorder's latency applies, so this waits that long before it returns.
    bool startRecorder();
    void stopRecorder();
    std::vector<float> recorded() const;

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
    {
        qputenv("PULSE_SERVER", address.toLocal8Bit());
    }
    ~PulseServerEnvironment() { m_old ? qputenv("PULSE_SERVER", *m_old) : qunsetenv("PULSE_SERVER"); }
    PulseServerEnvironment(const PulseServerEnvironment &) = delete;
    PulseServerEnvironment &operator=(const PulseServerEnvironment &) = delete;

private:
    const std::optional<QByteArray> m_old =
        qEnvironmentVariableIsSet("PULSE_SERVER") ? std::optional(qgetenv("PULSE_SERVER")) : std::nullopt;
};

// From the first to the last sample louder than the threshold; start is -1 when there is none.
struct Sound
{
    qint64 start = -1;
    qint64 end = -1;
    double seconds() const { return double(end - start) / PulseServer::kRateHz; }
};
Sound findSound(const std::vector<float> &samples, float threshold = 0.05f);
