// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "settings/SettingsSection.h"

#include <QMetaObject>
#include <QObject>
#include <QPointer>
#include <QString>

#include <memory>
#include <optional>

class KeychainHelper;
class OnboardingWindow;
class QWindow;
class MprisPlayer;
class RemoteControl;
class SettingsWindow;
class ShellStatusMenu;
class SingleInstance;
class SpeechManager;
class StatusMenu;
class UpdateChecker;
class UpdateWindow;
class UserDefaults;

// The application shell: starts the program, chooses between the first-run flow and normal operation,
// owns the tray menu and the settings window, and is the hub of the process-local notifications.
// GUI thread only.
class AppDelegate : public QObject
{
    Q_OBJECT

public:
    static constexpr const char *kHasCompletedOnboardingKey = "hasCompletedOnboarding";

    AppDelegate(UserDefaults &defaults, KeychainHelper &keychain, QObject *parent = nullptr);
    ~AppDelegate() override;

    // The delegate of this process, while it exists.
    static AppDelegate *shared();

    // The start, in order: the process-wide managers and the tray item; the request and callback-URL
    // channel of later invocations; onboarding or normal operation; the notification observers.
    // False when another instance already answers on the channel. `startUrl` is a callback URL the
    // process was started with.
    bool applicationDidFinishLaunching(const std::optional<QString> &startUrl = std::nullopt);

    bool shouldShowOnboarding();
    // Normal operation: shortcuts and capture, the trust check, the widget, the balance. Runs once.
    void startMainApp();
    // Opens the settings window on `section` (none: the window's default), or brings it forward; an
    // open window switches only when a section is asked for.
    void openSettings(std::optional<SettingsSection> section);

    // "onboardingCompleted", "openSettingsWindow", "openAboutSection"; their work runs from the event
    // loop, so that whoever posts returns at once.
    void addObservers();

    SettingsWindow *settingsWindow() const { return m_settingsWindow.get(); }

private:
    void openOnboardingWindow();
    // The six global shortcuts and capture, made once: by the tutorial's try-it or by normal operation.
    void ensureShortcuts();
    // Brings the onboarding window forward; false when it is not open.
    bool raiseOnboardingWindow();
    // Brings `window` to the front with the startup id a launcher handed over (X11), if one is waiting.
    void activateForLauncher(QWindow *window);
    void promptForTrust();
    void applicationDidBecomeActive();
    void applicationWillTerminate();
    void startUpdateChecks();
    UpdateWindow &updateWindow();

    UserDefaults &m_defaults;
    KeychainHelper &m_keychain;

    QMetaObject::Connection m_onboardingObserver;
    std::unique_ptr<SettingsWindow> m_settingsWindow;
    QMetaObject::Connection m_settingsObserver;
    QMetaObject::Connection m_openAboutObserver;
    // A section asked for while no settings window exists yet: the window opens on it.
    std::optional<SettingsSection> m_pendingSection;

    QPointer<SpeechManager> m_speech;
    std::unique_ptr<RemoteControl> m_remote;
    std::unique_ptr<SingleInstance> m_instance;
    std::unique_ptr<StatusMenu> m_statusMenu;
    std::unique_ptr<ShellStatusMenu> m_shellStatusMenu;
    std::unique_ptr<OnboardingWindow> m_onboarding;
    bool m_shortcutsMade = false;
    std::unique_ptr<MprisPlayer> m_mpris;
    bool m_mainAppStarted = false;
    std::unique_ptr<UpdateChecker> m_updateChecker;
    std::unique_ptr<UpdateWindow> m_updateWindow;
    // The notification about what the session lacks was shown.
    bool m_sessionExplained = false;
    QByteArray m_startupId;
};
