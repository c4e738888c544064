// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QJsonObject>
#include <QString>
#include <QUrl>

class HotkeyManager;
class SpeechManager;

// What a second `quillvox` (or a desktop's own shortcut bound to it) can ask of the running instance.
class RemoteControl
{
public:
    // hotkeys may be null (no global shortcuts in this session).
    RemoteControl(SpeechManager &speech, HotkeyManager *hotkeys);

    // "narrate-selection", "toggle", "stop", "skip-back", "skip-forward", "cycle-speed", "speak" (argument:
    // the text), "status", "open-url" (argument: a quillvox:// URL).
    QJsonObject handle(const QString &command, const QString &argument);
    QJsonObject status() const;

    // Routes a callback URL by host and path (exact, case-sensitive); anything else is ignored.
    void routeUrl(const QUrl &url);

    static const QStringList &controlCommands();

private:
    SpeechManager &m_speech;
    HotkeyManager *m_hotkeys;
};
