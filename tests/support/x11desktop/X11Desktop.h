// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/SystemClipboard.h"

#include <QByteArray>
#include <QProcess>
#include <QRect>
#include <QString>
#include <QStringList>

// Drives the rig's desktop the way a user would: real applications, synthetic keys through xdotool, the
// clipboard read back with xclip.

// Runs a program to its end and returns its standard output; empty, with a warning, when it does not
// finish within the timeout.
QByteArray runProgram(const QString &program, const QStringList &arguments, int timeoutMs = 15000);

void xdotool(const QStringList &arguments);

// Why this test cannot run here: no X display, or one of `programs` is not installed. Empty when it can:
//     if (const QString lack = desktopLacks({"mousepad", "xdotool"}); !lack.isEmpty())
//         QSKIP(qPrintable(lack));
QString desktopLacks(const QStringList &programs = {});

// What the clipboard's owner delivers for one target.
QByteArray clipboardBytes(const QString &target);

// A process the test started, ended when the test ends, however it ends.
struct ChildProcess
{
    QProcess process;
    ~ChildProcess();
};

// Makes `owner` (the quillvox-test-clipboard-owner program) own CLIPBOARD with `content`, whose bytes
// go through files in `dir`; true once it said it is ready.
bool ownClipboard(ChildProcess &owner, const QString &program, const ClipboardContent &content,
                  const QString &dir);

// The ids of the visible windows titled `title` exactly, once there is one or `timeoutMs` passed.
QByteArrayList visibleWindows(const QString &title, int timeoutMs = 0);
// Where a window is on the screen and its size.
QRect windowGeometry(const QByteArray &window);
// The screen's size.
QSize screenSize();

// Opens the file in mousepad and activates its window; the window's id, empty when none showed up.
QByteArray openInMousepad(ChildProcess &editor, const QString &file);
