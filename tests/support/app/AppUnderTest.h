// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "DevServer.h"
#include "X11Desktop.h"

#include <QVariantMap>

// Quillvox as a desktop test runs it: this build's binary (or an installed one) in the test's profile,
// its traffic at a dev server, its controls found on the accessibility bus as a screen reader finds them.
// Stopped when the object goes; a failed case shows its output.
class AppUnderTest
{
public:
    enum class Accessibility { On, Off };

    struct Run
    {
        int exitCode = -1; // also when it crashed or did not finish within 30 s
        QByteArray out;
        QByteArray err;
    };

    explicit AppUnderTest(Accessibility accessibility = Accessibility::On,
                          const QString &program = QStringLiteral(QUILLVOX_EXECUTABLE));
    ~AppUnderTest();
    AppUnderTest(const AppUnderTest &) = delete;
    AppUnderTest &operator=(const AppUnderTest &) = delete;

    // What the app and run()'s commands get: this process's environment, no sound output, and the
    // accessibility bridge on when asked for.
    QProcessEnvironment env;
    void useServer(const DevServer &server) { env = server.appEnvironment(env); }
    // Its sound to the PulseAudio server at `address` rather than nowhere.
    void usePulse(const QString &address);
    // Stores an own key as a user does, `--set-api-key` with the key typed; empty when that worked.
    QString storeKey(const QString &key = QStringLiteral("local")) const;
    // Writes settings into the profile's settings file; `fresh` empties it first.
    static void setSettings(const QVariantMap &settings, bool fresh = false);

    // Starts it and waits until it answers --status: it owns its bus name then.
    bool start(const QStringList &arguments = {});
    // Without waiting, e.g. for a narration of its own (`--speak`).
    void launch(const QStringList &arguments);
    // SIGTERM, as a session's end sends it; true when the app quit cleanly (exit code 0) within 10 s.
    bool stop();
    QProcess &process() { return m_process; }
    bool isRunning() const { return m_process.state() != QProcess::NotRunning; }
    QString output() const;

    // Another `quillvox` with these arguments, as from a terminal or a desktop's key binding.
    Run run(const QStringList &arguments, const QByteArray &input = {}) const;
    QJsonObject status() const;

    // The screen rectangle of the showing control called `name` (`index` picks a later one); empty if none.
    static QRect control(const QString &name, int index = 0);
    static QRect waitForControl(const QString &name, int index = 0, int timeoutMs = 15000);
    static bool shows(const QString &name) { return !waitForControl(name).isEmpty(); }
    // Clicks the control's centre. Hovering can move controls (the widget expands), so the pointer
    // follows until the control stays put; false when the control never showed.
    static bool click(const QString &name, int index = 0);
    // A way through the windows as a user goes it: clicks each control named in `steps` in turn, and for
    // a step "=name" waits until that control shows; false at the first step that found no control.
    static bool walk(const QStringList &steps);
    static QString focusedName();
    // Starts `watcher` writing the description of the showing control called `name` to its standard
    // output, a line each time it changes (an empty one while no such control shows).
    static bool watchDescription(ChildProcess &watcher, const QString &name);

private:
    QString m_program;
    QTemporaryDir m_dir;
    QProcess m_process;
    ChildProcess m_accessibilityBus;
    bool m_accessible;
};

// `env` for a native Wayland client of the compositor at `socket`, with no X11 to fall back on.
QProcessEnvironment waylandClient(QProcessEnvironment env, const QString &socket);
