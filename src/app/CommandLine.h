// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Entry point of the executable. Every argument is checked before anything runs, so that a mistake is
// reported the same way whether or not Quillvox is already running; then the requested mode runs on
// the application type it needs (modes without a window run on QCoreApplication, without a display).
// Exit status: 0 done, 1 a wrong argument or a failure, 2 a command for the running Quillvox when none
// runs.
int runQuillvox(int argc, char *argv[]);
