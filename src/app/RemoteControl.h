// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QJsonObject>
#include <QString>

#include <functional>
#include <optional>

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
    // A request this instance refuses at once (no key and not signed in, blank text, no way to capture)
    // answers {"ok": false, "error": why}.
    QJsonObject handle(const QString &command, const QString &argument);
    // Narrates `text` and answers once it was heard to the end ({"ok": true}), or failed or was stopped
    // ({"ok": false, "error": why}).
    void speakAndWait(const QString &text, std::function<void(const QJsonObject &)> reply);
    QJsonObject status() const;

    enum class UrlRoute { Ignored, AuthCallback, PurchaseSuccess };
    // Which callback a URL is, by host and path exactly as written (QUrl would lower-case the host).
    static UrlRoute urlRoute(const QString &text);
    // Routes a callback URL; anything else, an unparsable text included, is ignored.
    void routeUrl(const QString &text);

    static const QStringList &controlCommands();

private:
    // Starts narrating `text`; why not, when speak()'s own checks refuse it at once.
    std::optional<QString> startSpeaking(const QString &text);

    SpeechManager &m_speech;
    HotkeyManager *m_hotkeys;
    std::function<bool()> m_raiseOnboarding;
};
