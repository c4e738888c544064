// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <chrono>

// One run of a wl-clipboard tool (wl-paste, wl-copy), never longer than its time limit: a selection
// owner that never sends its data must not hold the caller up.
namespace WlClipboardTool {

struct Outcome
{
    bool answered = false; // exited normally within the time limit
    int exitCode = -1;
    QByteArray output;
    QByteArray errors;
};

// Runs `program`; with `input`, writes it to the tool's standard input and closes it. wl-copy forks a
// server for the selection and returns once it has taken it.
Outcome run(const QString &program, const QStringList &arguments, std::chrono::milliseconds timeLimit,
            const QByteArray *input = nullptr);

} // namespace WlClipboardTool
