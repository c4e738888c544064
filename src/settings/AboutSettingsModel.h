// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "core/Autostart.h"

#include <QObject>
#include <QtQml/qqmlregistration.h>

class UserDefaults;

// About's switches: the daily update check and starting at login; and "Check for Updates...".
class AboutSettingsModel : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("the settings window creates it")
    Q_PROPERTY(bool checkForUpdatesAutomatically READ checkForUpdatesAutomatically WRITE
                   setCheckForUpdatesAutomatically NOTIFY changed)
    Q_PROPERTY(bool startAtLogin READ startAtLogin WRITE setStartAtLogin NOTIFY changed)
    Q_PROPERTY(QString startAtLoginError READ startAtLoginError NOTIFY changed)

public:
    // `defaults` none: the switch for updates shows its default and changes nothing.
    explicit AboutSettingsModel(UserDefaults *defaults, Autostart autostart = Autostart(),
                                QObject *parent = nullptr);

    bool checkForUpdatesAutomatically() const;
    void setCheckForUpdatesAutomatically(bool on);
    bool startAtLogin() const { return m_autostart.isEnabled(); }
    void setStartAtLogin(bool on);
    QString startAtLoginError() const { return m_startAtLoginError; }

    Q_INVOKABLE void checkForUpdates();

Q_SIGNALS:
    void changed();

private:
    UserDefaults *m_defaults;
    Autostart m_autostart;
    QString m_startAtLoginError;
};
