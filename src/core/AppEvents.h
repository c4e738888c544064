// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>
#include <QString>

// The process-local notifications, one signal per name; the application shell is their hub.
class AppEvents : public QObject
{
    Q_OBJECT
public:
    static AppEvents &shared();

Q_SIGNALS:
    void onboardingCompleted();
    void openSettingsWindow();
    void openAboutSection();
    void navigateToSettingsSection(const QString &section);
    void onboardingPurchaseSuccess();
    // "Check for Updates..." in the tray menu or in About.
    void checkForUpdates();
    // The version the update window skips was chosen or forgotten.
    void skippedVersionChanged();

private:
    AppEvents() = default;
};
