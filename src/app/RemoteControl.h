// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QJsonObject>
#include <QString>

#include <functional>

class HotkeyManager;
class SpeechManager;

// What a second `quillvox` (or a desktop's own shortcut bound to it) can ask of the running instance.
class RemoteControl
{
public:
    // hotkeys may be null (no global shortcuts in this session, or not yet).
    RemoteControl(SpeechManager &speech, HotkeyManager *hotkeys);
    void setHotkeys(HotkeyManager *hotkeys) { m_hotkeys = hotkeys; }
    // Brings the first-run window forward when it is open; false when it is not.
    void setOnboardingRaiser(std::function<bool()> raise) { m_raiseOnboarding = std::move(raise); }

    // "narrate-selection", "toggle", "stop", "skip-back", "skip-forward", "cycle-speed", "settings",
    // "speak" (argument: the text), "status", "open-url" (argument: a quillvox:// URL), "activate" (a
    // plain start of `quillvox` while this one runs, or the desktop's launcher: the onboarding window
    // when it is open, otherwise the settings window, the way in when no tray shows us).
    QJsonObject handle(const QString &command, const QString &argument);
    QJsonObject status() const;

    enum class UrlRoute { Ignored, AuthCallback, PurchaseSuccess };
    // Which callback a URL is, by host and path exactly as written (QUrl would lower-case the host).
    static UrlRoute urlRoute(const QString &text);
    // Routes a callback URL; anything else, an unparsable text included, is ignored.
    void routeUrl(const QString &text);

    static const QStringList &controlCommands();

private:
    SpeechManager &m_speech;
    HotkeyManager *m_hotkeys;
    std::function<bool()> m_raiseOnboarding;
};
