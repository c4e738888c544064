// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QDir>
#include <QString>

class SpeechManager;

// Draws every step of the first-run window (and each tutorial phase) into `out`; returns how many
// pictures were written.
int shootOnboarding(const QDir &out, const QString &suffix, SpeechManager &speech);
