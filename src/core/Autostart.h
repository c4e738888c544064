// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

// "Start Quillvox at login": an XDG autostart entry in the user's configuration folder
// ($XDG_CONFIG_HOME/autostart/), whose command is `quillvox --autostart`. The desktop session reads it
// at login; the entry's presence is the setting, so the user's desktop and Quillvox always agree.
class Autostart
{
public:
    static constexpr const char *kFileName = "com.vantor.Quillvox.desktop";

    // `configFolder` empty: the user's ($XDG_CONFIG_HOME, or ~/.config).
    explicit Autostart(const QString &configFolder = {});

    QString entryPath() const;
    // True while the entry is there and the desktop has not switched it off (Hidden, or GNOME's
    // X-GNOME-Autostart-enabled=false, which its settings write instead of removing the file).
    bool isEnabled() const;
    // Writes or removes the entry. False, with lastError() saying why, when the folder or file could
    // not be written or removed.
    bool setEnabled(bool enabled);
    QString lastError() const { return m_lastError; }

private:
    QString m_folder;
    QString m_lastError;
};
