// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/SystemClipboard.h"

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>
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

// Starts the AT-SPI bus in `launcher` unless the session bus has one already; true once it is there.
bool startAccessibilityBus(ChildProcess &launcher);

// Makes `owner` (the quillvox-test-clipboard-owner program) own CLIPBOARD with `content`, whose bytes
// go through files in `dir`; true once it said it is ready.
bool ownClipboard(ChildProcess &owner, const QString &program, const ClipboardContent &content,
                  const QString &dir);

// The on-screen rectangle of Quillvox's showing control called `name`, found on the accessibility bus
// as a screen reader finds it; empty when there is none. `index` picks a later one of the same name.
QRect findAccessibleControl(const QString &name, int index = 0);

// Starts `watcher` writing the accessible description of Quillvox's showing control called `name` to its
// standard output, a line each time it changes (an empty one while no such control shows).
bool watchAccessibleDescription(ChildProcess &watcher, const QString &name);

// findAccessibleControl's rectangle once the control shows, within `timeoutMs`; empty when it never did.
QRect waitForAccessibleControl(const QString &name, int index = 0, int timeoutMs = 15000);
// Whether the control shows within 15 s.
bool showsAccessibleControl(const QString &name);
// Clicks the control's centre. Hovering can move controls (the widget expands), so the pointer follows
// until the control stays put; false when the control never showed.
bool clickAccessibleControl(const QString &name, int index = 0);

// The name of Quillvox's control that has the keyboard focus, as a screen reader hears it; empty when
// none has.
QString focusedAccessibleName();

// Opens the file in mousepad and activates its window; the window's id, empty when none showed up.
QByteArray openInMousepad(ChildProcess &editor, const QString &file);

#ifdef QUILLVOX_EXECUTABLE
// What the running app answers to `quillvox --status`; empty when none runs.
inline QJsonObject appStatus()
{
    return QJsonDocument::fromJson(runProgram(QStringLiteral(QUILLVOX_EXECUTABLE), {"--status"})).object();
}
#endif
