// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// What the benchmarks that time the narration shortcut end to end share: the text they narrate from
// mousepad, the key press through XTest, a profile of their own for the app binary, and its command line.
#include "BenchTiming.h"
#include "MonitorRecorder.h"
#include "PulseServer.h"
#include "X11Desktop.h"

#include "platform/x11/X11Connection.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>

#include <linux/input-event-codes.h>
#include <xcb/xcb.h>
#include <xcb/xtest.h>

#include <cstdio>
#include <optional>

namespace bench {

inline const QByteArray kNarratedText =
    "Quillvox reads the selected text aloud, and the audio starts playing while the rest of "
    "the sentence is still on its way from the server.";

inline int fail(const char *what)
{
    std::fprintf(stderr, "%s\n", what);
    return 1;
}

// Ctrl+Alt+S through XTest, as a keyboard sends it; the time right before S goes down.
inline Clock::time_point pressNarrationShortcut(X11Connection &x)
{
    constexpr int kEvdevToXKeyCode = 8;
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

// From the shortcut pressed to its first sound on the monitor; nothing when none came within 10 s.
inline std::optional<double> shortcutToSoundMs(X11Connection &x, MonitorRecorder &monitor)
{
    monitor.arm();
    const Clock::time_point pressed = pressNarrationShortcut(x);
    if (!waitFor([&] { return monitor.heard(); }, 10000))
        return std::nullopt;
    return msBetween(pressed, monitor.heardAt());
}

// The benchmark's own PulseAudio daemon, its null sink's monitor recorded; what went wrong, or nothing.
inline const char *startListening(PulseServer &pulse, MonitorRecorder &monitor)
{
    if (!pulse.start())
        return "cannot start pulseaudio";
    if (!monitor.start(pulse.address()))
        return "cannot record t.monitor";
    // The null sink keeps its long idle blocks for up to 2 s before the recorder's latency applies.
    QThread::msleep(2200);
    return nullptr;
}

// A profile of the benchmark's own in dir: settings, history, keyring item and single-instance socket,
// and audio played to the benchmark's PulseAudio daemon.
inline QProcessEnvironment benchProfile(const QTemporaryDir &dir, const QString &keychainService,
                                        const QString &pulseAddress)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const char *name : {"XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME"})
        env.insert(QString::fromLatin1(name), dir.filePath(QString::fromLatin1(name)));
    env.insert(QStringLiteral("QUILLVOX_KEYCHAIN_SERVICE"), keychainService);
    env.insert(QStringLiteral("PULSE_SERVER"), pulseAddress);
    env.insert(QStringLiteral("QUILLVOX_AUDIO_OUTPUT"), QStringLiteral("pulse"));
    return env;
}

// One command-line call of the app (--set-api-key, --status, --stop): true when it exits with 0.
inline bool runQuillvox(const QString &executable, const QProcessEnvironment &env,
                        const QStringList &arguments, const QByteArray &input = {})
{
    QProcess process;
    process.setProcessEnvironment(env);
    process.start(executable, arguments);
    process.write(input);
    process.closeWriteChannel();
    return process.waitForFinished(30000) && process.exitStatus() == QProcess::NormalExit &&
           process.exitCode() == 0;
}

// kNarratedText written to file, shown in mousepad and all selected; what went wrong, or nothing.
inline const char *selectNarratedText(ChildProcess &editor, const QString &file)
{
    {
        QFile f(file);
        if (!f.open(QIODevice::WriteOnly))
            return "cannot write the text";
        f.write(kNarratedText);
    }
    if (openInMousepad(editor, file).isEmpty())
        return "mousepad did not show a window";
    xdotool({"key", "ctrl+a"});
    return nullptr;
}

} // namespace bench
