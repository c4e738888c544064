// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QDir>
#include <QString>

class KeychainHelper;
class SpeechManager;
class UserDefaults;

// Draws each section of the settings window into `out` ("settings-<section>-<light|dark><suffix>.png"),
// under a light and a dark system palette, with sample history, usage and shortcuts; returns the number
// of files written.
int shootSettingsWindow(const QDir &out, const QString &suffix, SpeechManager &speech, UserDefaults &defaults,
                        KeychainHelper &keychain);
