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

// Its standard output; empty, with a warning, when it does not finish in time.
QByteArray runProgram(const QString &program, const QStringList &arguments, int timeoutMs = 15000);

QByteArray xdotool(const QStringList &arguments, int timeoutMs = 15000);

// Why this test cannot run here (no X display, or one of `programs` missing); empty when it can.
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
QRect windowGeometry(const QByteArray &window);
QSize screenSize();

// Opens the file in mousepad and activates its window; the window's id, empty when none showed up.
QByteArray openInMousepad(ChildProcess &editor, const QString &file);
