// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QProcess>

// Asks a running helper program to end (SIGTERM) and kills it when it has not after `timeoutMs`.
// Returns its exit code when it ended by itself, -1 when it had to be killed or crashed.
inline int stopProcess(QProcess &process, int timeoutMs)
{
    process.terminate();
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        return -1;
    }
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}
