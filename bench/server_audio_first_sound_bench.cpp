// SPDX-License-Identifier: GPL-3.0-or-later
// What decoding a chosen server's audio adds to the time from the narration shortcut to the first sound:
// the same text, pressed the same way, through two dev servers chosen in the settings as the user's own
// server, one sending 24 kHz PCM (which passes through untouched) and one sending 22,050 Hz WAV with
// streamed (unknown) sizes, which is parsed and resampled with libsoxr on the way. Both send a tone as
// long as the speech, head after 200 ms, body at 4x real time in 5 ms pieces. The goal: the medians at most
// 10 ms apart. The app runs in blocks that alternate between the servers (it reads the chosen server per
// narration, but another process's settings change reaches it only on restart). Run inside the rig:
//
//     RIG_DIR=$(mktemp -d) scripts/rig.sh -- build-x11app/bench/server_audio_first_sound_bench [runs, 20]
//
// Clocks and the recording of the first sound are those of hotkey_first_sound_bench.
#include "DevServer.h"
#include "MonitorRecorder.h"
#include "PulseServer.h"
#include "X11Desktop.h"

#include "core/UserDefaults.h"
#include "platform/x11/X11Connection.h"
#include "speech/OpenAIServer.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QThread>

#include <linux/input-event-codes.h>
#include <xcb/xcb.h>
#include <xcb/xtest.h>

#include <cmath>
#include <cstdio>

namespace {

using namespace bench;

constexpr double kGoalMs = 10;
constexpr int kBlocks = 4;
constexpr int kEvdevToXKeyCode = 8;

const QByteArray kText =
    "Quillvox reads the selected text aloud, and the audio starts playing while the rest of "
    "the sentence is still on its way from the server.";

Clock::time_point pressNarrationShortcut(X11Connection &x)
{
    xcb_connection_t *c = x.connection();
    const auto key = [c](int evdev, bool down) {
        xcb_test_fake_input(c, down ? XCB_KEY_PRESS : XCB_KEY_RELEASE, quint8(evdev + kEvdevToXKeyCode),
                            XCB_CURRENT_TIME, XCB_WINDOW_NONE, 0, 0, 0);
    };
    key(KEY_LEFTCTRL, true);
    key(KEY_LEFTALT, true);
    x.sync();
    const Clock::time_point pressed = Clock::now();
    key(KEY_S, true);
    xcb_flush(c);
    key(KEY_S, false);
    key(KEY_LEFTALT, false);
    key(KEY_LEFTCTRL, false);
    xcb_flush(c);
    return pressed;
}

int fail(const char *what)
{
    std::fprintf(stderr, "%s\n", what);
    return 1;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const int runs = std::max(kBlocks, argc > 1 ? std::atoi(argv[1]) : 20);
    if (qEnvironmentVariableIsEmpty("DISPLAY"))
        return fail("needs an X11 display: run inside scripts/rig.sh");

    QTemporaryDir dir(QDir::tempPath() + QStringLiteral("/qv-server-audio-bench-XXXXXX"));
    PulseServer pulse(dir.filePath(QStringLiteral("pulse")));
    if (!pulse.start())
        return fail("cannot start pulseaudio");
    MonitorRecorder monitor;
    if (!monitor.start(pulse.address()))
        return fail("cannot record t.monitor");
    QThread::msleep(2200); // the null sink's idle blocks
    // Pieces of 5 ms of audio (1.25 ms apart at 4x): with the usual 50 ms, the resampler's millisecond of
    // delay would cost a whole piece, 12.5 ms, whenever the prebuffer ends exactly on a piece's end.
    const QStringList common{"--synth", "sine", "--ttfb-ms", "200", "--pace", "4", "--piece-ms", "5"};
    DevServer pcm, wav;
    if (!pcm.start(common) || !wav.start(common + QStringList{"--audio-format", "wav", "--audio-rate",
                                                              "22050", "--wav-unknown-sizes"}))
        return fail("cannot start the dev servers");

    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const char *name : {"XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME"})
        env.insert(QString::fromLatin1(name), dir.filePath(QString::fromLatin1(name)));
    env.insert(QStringLiteral("QUILLVOX_KEYCHAIN_SERVICE"),
               QStringLiteral("com.vantor.quillvox.bench.serveraudio"));
    env.insert(QStringLiteral("PULSE_SERVER"), pulse.address());
    env.insert(QStringLiteral("QUILLVOX_AUDIO_OUTPUT"), QStringLiteral("pulse"));
    for (const char *origin : {"QUILLVOX_SERVICE_ORIGIN", "QUILLVOX_AUTH_ORIGIN"})
        env.insert(QString::fromLatin1(origin), pcm.url().toString());
    env.remove(QStringLiteral("QUILLVOX_OPENAI_ORIGIN")); // the chosen server decides
    const QString settingsFile = dir.filePath(QStringLiteral("XDG_CONFIG_HOME/Quillvox/Quillvox.conf"));
    const auto choose = [&settingsFile](const DevServer &server) {
        UserDefaults settings(settingsFile);
        settings.setBoolean(QStringLiteral("hasCompletedOnboarding"), true);
        settings.setString(OpenAIServer::serverKey, server.url().toString());
    };
    const auto quillvox = [&env](const QStringList &arguments, const QByteArray &input = {}) {
        QProcess process;
        process.setProcessEnvironment(env);
        process.start(QStringLiteral(QUILLVOX_EXECUTABLE), arguments);
        process.write(input);
        process.closeWriteChannel();
        return process.waitForFinished(30000) && process.exitStatus() == QProcess::NormalExit &&
               process.exitCode() == 0;
    };
    choose(pcm);
    if (!quillvox({"--set-api-key"}, "local\n"))
        return fail("cannot store the key");

    const QString file = dir.filePath(QStringLiteral("text.txt"));
    {
        QFile f(file);
        if (!f.open(QIODevice::WriteOnly))
            return fail("cannot write the text");
        f.write(kText);
    }
    ChildProcess editor;
    if (openInMousepad(editor, file).isEmpty())
        return fail("mousepad did not show a window");
    xdotool({"key", "ctrl+a"});
    X11Connection x;
    if (!x.isValid())
        return fail("no X11 connection");

    std::vector<double> ms[2];
    for (int block = 0; block < kBlocks; ++block) {
        const int which = block % 2;
        DevServer &server = which ? wav : pcm;
        choose(server);
        ChildProcess running;
        running.process.setProcessEnvironment(env);
        running.process.setStandardOutputFile(dir.filePath(QStringLiteral("app.log")), QIODevice::Append);
        running.process.setStandardErrorFile(dir.filePath(QStringLiteral("app.log")), QIODevice::Append);
        dieWithTheTest(running.process);
        running.process.start(QStringLiteral(QUILLVOX_EXECUTABLE), QStringList());
        if (!waitFor([&] { return quillvox({"--status"}); }, 10000))
            return fail("the app did not start");
        for (int run = 0; run < runs / kBlocks; ++run) {
            const qsizetype requests = server.requests().size();
            monitor.arm();
            const Clock::time_point pressed = pressNarrationShortcut(x);
            if (!waitFor([&] { return monitor.heard(); }, 10000))
                return fail("no sound within 10 s of the shortcut");
            ms[which].push_back(msBetween(pressed, monitor.heardAt()));
            quillvox({"--stop"});
            if (!waitFor([&] { return server.requests().size() > requests; }, 5000))
                return fail("the chosen dev server logged no request");
            QThread::msleep(300);
        }
        running.process.terminate();
        running.process.waitForFinished(5000);
    }

    const double pcmMedian = median(ms[0]);
    const double wavMedian = median(ms[1]);
    std::printf("Shortcut to first sound through a chosen server, %d runs each, alternating blocks\n",
                int(ms[0].size()));
    std::printf("  24 kHz PCM:               median %7.1f ms\n", pcmMedian);
    std::printf("  22,050 Hz WAV (streamed): median %7.1f ms\n", wavMedian);
    std::printf("  difference %+.1f ms; |difference| / goal of %.0f ms: %.2f\n", wavMedian - pcmMedian,
                kGoalMs, std::abs(wavMedian - pcmMedian) / kGoalMs);
    return 0;
}
