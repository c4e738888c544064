// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QStringList>

// Entry point of the executable: picks the application type for the requested mode (modes that
// need no window run on QCoreApplication, without a display) and runs it.
int runQuillvox(int argc, char *argv[]);

// Modes that run without a window.
bool isHeadlessMode(const QStringList &arguments);
