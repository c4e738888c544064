// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "core/Autostart.h"

#include <QObject>
#include <QUrl>
#include <QtQml/qqmlregistration.h>

class UserDefaults;

// About's switches: the daily update check and starting at login; "Check for Updates...", the version the
// update window was told to skip, and the deployment's website.
class AboutSettingsModel : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("the settings window creates it")
    Q_PROPERTY(bool checkForUpdatesAutomatically READ checkForUpdatesAutomatically WRITE
                   setCheckForUpdatesAutomatically NOTIFY changed)
    Q_PROPERTY(bool startAtLogin READ startAtLogin WRITE setStartAtLogin NOTIFY changed)
    Q_PROPERTY(QString startAtLoginError READ startAtLoginError NOTIFY changed)
    // "Skipped version: 1.4.0", or empty when none is skipped.
    Q_PROPERTY(QString skippedVersionText READ skippedVersionText NOTIFY changed)
    Q_PROPERTY(QUrl website READ website CONSTANT)

public:
    // `defaults` none: the switch for updates shows its default and changes nothing.
    explicit AboutSettingsModel(UserDefaults *defaults, Autostart autostart = Autostart(), QUrl website = {},
                                QObject *parent = nullptr);

    bool checkForUpdatesAutomatically() const;
    void setCheckForUpdatesAutomatically(bool on);
    bool startAtLogin() const { return m_autostart.isEnabled(); }
    void setStartAtLogin(bool on);
    QString startAtLoginError() const { return m_startAtLoginError; }

    QString skippedVersionText() const;
    QUrl website() const { return m_website; }

    Q_INVOKABLE void checkForUpdates();
    // Automatic checks offer the skipped version again.
    Q_INVOKABLE void forgetSkippedVersion();
    Q_INVOKABLE void openWebsite();

Q_SIGNALS:
    void changed();

private:
    UserDefaults *m_defaults;
    Autostart m_autostart;
    QUrl m_website;
    QString m_startAtLoginError;
};
