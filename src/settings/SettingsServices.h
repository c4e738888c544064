// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <QUrl>

#include <functional>

class AuthManager;
class BalanceManager;
class HistoryManager;
class HotkeyManager;
class KeychainHelper;
class QNetworkAccessManager;
class SpeechManager;
class UsageManager;
class UserDefaults;

// The managers whose values the settings window shows and edits. A section whose manager is missing
// is left empty (the window can open before normal operation has installed every manager).
struct SettingsServices
{
    SpeechManager *speech = nullptr;
    AuthManager *auth = nullptr;
    BalanceManager *balance = nullptr;
    HotkeyManager *hotkeys = nullptr;
    KeychainHelper *keychain = nullptr;
    HistoryManager *history = nullptr;
    UsageManager *usage = nullptr;
    UserDefaults *defaults = nullptr;
    QNetworkAccessManager *network = nullptr; // none: one of the API Keys section's own
    QUrl openAIOrigin;
    bool openAIOriginFromEnvironment = false;
    // About's "Website": the deployment's service origin.
    QUrl website;
    // The own key or "showWidgetWithOwnKey" changed. None: the shared widget re-applies its rule.
    std::function<void()> ownKeyChanged;
    // Asks where to export (`suggestedName` in the user's music folder) and calls `done` with the chosen
    // path, or not at all when the user cancels. None: a file dialog.
    std::function<void(const QString &suggestedName, std::function<void(const QString &)> done)>
        chooseExportPath;
    // Why selection capture may not work in this session, in words for the user; empty when it works.
    std::function<QString()> captureProblem;

    // Whatever the application has installed, with the process's deployment configuration.
    static SettingsServices fromShared();
};
