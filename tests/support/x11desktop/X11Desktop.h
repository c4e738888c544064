// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/SystemClipboard.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRect>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

// Drives the rig's desktop the way a user would: real applications, synthetic keys through xdotool, the
// clipboard read back with xclip. Brings what every desktop test uses along.

// Its standard output; empty, with a warning, when it does not finish in time.
QByteArray runProgram(const QString &program, const QStringList &arguments, int timeoutMs = 15000);

QByteArray xdotool(const QStringList &arguments, int timeoutMs = 15000);
// Moves the pointer there and gives the hover a moment to reach the control before a press.
void pointAt(QPoint point);
// Writes `content` to `path`, making its folder first.
bool writeFile(const QString &path, const QByteArray &content);

// Why this test cannot run here (no X display, or one of `programs` missing); empty when it can.
QString desktopLacks(const QStringList &programs = {});

// What the clipboard's owner delivers for one target.
QByteArray clipboardBytes(const QString &target);

// A process the test started, ended when the test ends, however it ends.
struct ChildProcess
{
    QProcess process;
    ~ChildProcess();
    // SIGTERM; true once it has ended (or never ran) within `timeoutMs`.
    bool end(int timeoutMs = 10000);
    // Runs `command` as the rig's unprivileged `user` with only PATH, HOME and XDG_RUNTIME_DIR (both
    // `runtime`) and the VAR=value items leading `command` in its environment. Its output goes to
    // `runtime`/`log`: a compositor outliving the test would hold ctest's pipe open.
    void startAs(const QString &user, const QString &runtime, const QStringList &command, const QString &log);
};

// Makes `owner` (the quillvox-test-clipboard-owner program) own CLIPBOARD with `content`, whose bytes
// go through files in `dir`; true once it said it is ready.
bool ownClipboard(ChildProcess &owner, const QString &program, const ClipboardContent &content,
                  const QString &dir);

// The ids of the visible windows titled `title` exactly, once there is one or `timeoutMs` passed.
QByteArrayList visibleWindows(const QString &title, int timeoutMs = 0);
QRect windowGeometry(const QByteArray &window);
QSize screenSize();

// Opens the file (with `text` written into it first, when given) in mousepad and activates its window;
// the window's id, empty when none showed up.
QByteArray openInMousepad(ChildProcess &editor, const QString &file, const QByteArray &text = {});
