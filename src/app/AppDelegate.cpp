// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/AppDelegate.h"

#include "account/AuthManager.h"
#include "account/BalanceManager.h"
#include "account/KeychainHelper.h"
#include "app/AppServices.h"
#include "app/DesktopNotification.h"
#include "app/MprisPlayer.h"
#include "app/RemoteControl.h"
#include "app/ShellStatusMenu.h"
#include "app/SingleInstance.h"
#include "app/StatusMenu.h"
#include "capture/SelectionCapture.h"
#include "core/AppEvents.h"
#include "core/DeploymentConfig.h"
#include "core/Logging.h"
#include "core/UserDefaults.h"
#include "onboarding/OnboardingWindow.h"
#include "platform/dbus/LogindWakeMonitor.h"
#include "platform/x11/X11Activation.h"
#include "records/HistoryManager.h"
#include "settings/SettingsWindow.h"
#include "shortcuts/HotkeyManager.h"
#include "shortcuts/ShortcutServices.h"
#include "speech/SpeechManager.h"
#include "updates/UpdateChecker.h"
#include "updates/UpdateWindow.h"
// FloatingWindowController.h needs the view model complete for its inline accessor.
#include "widget/FloatingWidgetViewModel.h"
#include "widget/FloatingWindowController.h"

#include <QGuiApplication>
#include <QQuickView>
#include <QQuickWindow>
#include <QTextStream>
#include <QTimer>

namespace {

AppDelegate *s_shared = nullptr;

void explainWayland()
{
    QTextStream(stderr)
        << "Quillvox: this is a Wayland session, where applications cannot bind global shortcuts.\n"
           "Bind these commands in your desktop's keyboard settings instead (on sway, bindsym lines in its "
           "configuration):\n"
           "  quillvox --narrate-selection   quillvox --toggle        quillvox --stop\n"
           "  quillvox --skip-back           quillvox --skip-forward  quillvox --cycle-speed\n"
        << Qt::flush;
}

// Where the user looks, not only on standard error: the Shortcuts section explains the session.
void notifyWithSettings(const QString &summary, const QString &body)
{
    showDesktopNotification(summary, body, QStringLiteral("Open Settings"), [] {
        Q_EMIT AppEvents::shared().openSettingsWindow();
        Q_EMIT AppEvents::shared().navigateToSettingsSection(
            settingsSectionLabel(SettingsSection::shortcuts));
    });
}

} // namespace

AppDelegate::AppDelegate(UserDefaults &defaults, KeychainHelper &keychain, QObject *parent)
    : QObject(parent)
    , m_defaults(defaults)
    , m_keychain(keychain)
{
    s_shared = this;
}

AppDelegate::~AppDelegate()
{
    if (s_shared == this)
        s_shared = nullptr;
}

AppDelegate *AppDelegate::shared()
{
    return s_shared;
}

bool AppDelegate::applicationDidFinishLaunching(const std::optional<QString> &startUrl)
{
    // Our windows are small and mostly static: the software renderer needs no GL context per window
    // and keeps the resident size down.
    if (qEnvironmentVariableIsEmpty("QT_QUICK_BACKEND"))
        QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);

    // Where no capture backend works, the capture says so and the controller shows why.
    SpeechManager &speech = createSharedSpeechManager(&SelectionCapture::shared());
    m_speech = &speech;

    m_remote = std::make_unique<RemoteControl>(speech, nullptr);
    m_instance = std::make_unique<SingleInstance>();
    if (!m_instance->listen([this](const QString &command,
                                   const QString &argument) { return m_remote->handle(command, argument); },
                            [this](const QString &text, std::function<void(const QJsonObject &)> reply) {
                                m_remote->speakAndWait(text, std::move(reply));
                            }))
        return false;
    m_remote->setOnboardingRaiser([this] { return raiseOnboardingWindow(); });
    // A launcher's leave to come to the front holds for the window its request shows, not later ones.
    connect(m_instance.get(), &SingleInstance::startupIdReceived, this, [this](const QByteArray &id) {
        m_startupId = id;
        QTimer::singleShot(2000, this, [this, id] {
            if (m_startupId == id)
                m_startupId.clear();
        });
    });
    m_mpris = std::make_unique<MprisPlayer>(speech, &HistoryManager::shared());
    m_mpris->registerOnBus(MprisPlayer::busNameFor(
        SingleInstance::busName() == SingleInstance::kDefaultBusName, QCoreApplication::applicationPid()));

    m_statusMenu = std::make_unique<StatusMenu>(speech, SelectionCapture::shared(), nullptr);
    // Shows the tray item, or leaves the menu to GNOME Shell's top bar where our extension runs.
    m_shellStatusMenu = std::make_unique<ShellStatusMenu>(*m_statusMenu, speech);
    m_shellStatusMenu->start();

    if (shouldShowOnboarding())
        openOnboardingWindow();
    else
        startMainApp();

    addObservers();
    connect(qGuiApp, &QGuiApplication::applicationStateChanged, this, [this](Qt::ApplicationState state) {
        if (state == Qt::ApplicationActive)
            applicationDidBecomeActive();
    });
    connect(qApp, &QCoreApplication::aboutToQuit, this, &AppDelegate::applicationWillTerminate);

    startUpdateChecks();
    // A chosen server's voices and models, when they are missing (a server set outside the settings
    // window, lists that failed to come): asked once start-up is over, so that --voice takes them.
    QTimer::singleShot(2000, &speech, [&speech] { speech.refreshServerCatalogIfStale(); });
    if (startUrl)
        m_remote->routeUrl(*startUrl);
    qCInfo(lcApp) << "ready";
    return true;
}

void AppDelegate::startUpdateChecks()
{
    m_updateChecker = std::make_unique<UpdateChecker>(
        UpdateChecker::Services{&m_defaults, nullptr, nullptr, DeploymentConfig::current().appcastUrl,
                                QStringLiteral(QUILLVOX_VERSION)});
    connect(&AppEvents::shared(), &AppEvents::checkForUpdates, this,
            [this] { updateWindow().checkForUpdates(); });
    connect(m_updateChecker.get(), &UpdateChecker::updateFound, this,
            [this](const UpdateChecker::Result &result) { updateWindow().showResult(result); });
    // Once a day at most, across restarts, and never before start-up has settled.
    static constexpr std::chrono::seconds kSoonest(10);
    m_updateChecker->scheduleAutomaticChecks(kSoonest);
    auto *wake = new LogindWakeMonitor(this);
    connect(wake, &WakeMonitor::woke, m_updateChecker.get(),
            [checker = m_updateChecker.get()] { checker->scheduleAutomaticChecks(kSoonest); });
}

UpdateWindow &AppDelegate::updateWindow()
{
    if (!m_updateWindow)
        m_updateWindow = std::make_unique<UpdateWindow>(*m_updateChecker);
    return *m_updateWindow;
}

bool AppDelegate::shouldShowOnboarding()
{
    if (!m_defaults.boolean(QString::fromLatin1(kHasCompletedOnboardingKey)).value_or(false))
        return true;
    // Finished once, but the credentials have gone since: the user needs the way in again.
    return !m_keychain.load(KeychainKey::openAIAPIKey) && !m_keychain.load(KeychainKey::accessToken);
}

void AppDelegate::openOnboardingWindow()
{
    OnboardingViewModel::Services services;
    services.auth = &AuthManager::shared();
    services.balance = &BalanceManager::shared();
    services.speech = m_speech;
    services.keychain = &m_keychain;
    services.defaults = &m_defaults;
    services.serviceOrigin = DeploymentConfig::current().serviceOrigin;
    services.isTrusted = [] { return SelectionCapture::shared().isProcessTrusted(false); };
    services.untrustedReason = [] { return SelectionCapture::shared().untrustedReason(); };
    services.prepareTryIt = [this] { ensureShortcuts(); };
    services.showWidget = [](bool show) {
        FloatingWindowController &widget = FloatingWindowController::shared();
        if (show)
            widget.showWidget();
        else
            widget.updateVisibility();
    };
    m_onboarding = std::make_unique<OnboardingWindow>(std::move(services));
    m_onboarding->present();
}

bool AppDelegate::raiseOnboardingWindow()
{
    if (!m_onboarding)
        return false;
    m_onboarding->present();
    activateForLauncher(m_onboarding->window());
    return true;
}

void AppDelegate::activateForLauncher(QWindow *window)
{
    const QByteArray startupId = std::exchange(m_startupId, {});
    if (startupId.isEmpty() || !window)
        return;
    // Once the window manager has mapped it.
    QTimer::singleShot(100, window, [window, startupId] { X11Activation::activate(*window, startupId); });
}

void AppDelegate::startMainApp()
{
    if (std::exchange(m_mainAppStarted, true))
        return;

    ensureShortcuts();
    promptForTrust();

    FloatingWindowController &widget = FloatingWindowController::shared();
    widget.subscribeToAuthState();
    if (m_statusMenu)
        m_statusMenu->setWidget(&widget);

    const bool hasAccessToken = m_keychain.load(KeychainKey::accessToken).has_value();
    if (AuthManager::shared().isSignedIn() || hasAccessToken)
        widget.showWidget();
    else
        widget.updateVisibility();

    if (hasAccessToken)
        QTimer::singleShot(0, this, [] { BalanceManager::shared().refreshBalance(); });
}

void AppDelegate::ensureShortcuts()
{
    if (std::exchange(m_shortcutsMade, true))
        return;
    SelectionCapture::shared();
    if (HotkeyManager *hotkeys = createSharedHotkeyManager()) {
        if (m_remote)
            m_remote->setHotkeys(hotkeys);
        if (m_statusMenu)
            m_statusMenu->setHotkeys(hotkeys);
    } else {
        explainWayland();
        notifyWithSettings(QStringLiteral("Quillvox cannot bind its shortcuts"),
                           QStringLiteral("This session lets no application bind global shortcuts. Bind "
                                          "Quillvox's commands in your desktop's keyboard settings."));
        m_sessionExplained = true;
    }
    // A window opened during onboarding was made without them.
    if (m_settingsWindow)
        m_settingsWindow->adoptServices(SettingsServices::fromShared());
}

void AppDelegate::promptForTrust()
{
    // Asked once per start; where capture cannot work the user is told why, once.
    SelectionCapture &capture = SelectionCapture::shared();
    // One notification per start: the section it opens explains both.
    const QMetaObject::Connection explain = connect(
        &capture, &SelectionCapture::permissionExplanationRequested, this, [this](const QString &why) {
            if (!std::exchange(m_sessionExplained, true))
                notifyWithSettings(QStringLiteral("Quillvox cannot read selected text"), why);
        });
    capture.isProcessTrusted(true);
    disconnect(explain);
}

void AppDelegate::openSettings(std::optional<SettingsSection> section)
{
    if (!m_settingsWindow) {
        m_settingsWindow = std::make_unique<SettingsWindow>(section ? section : m_pendingSection,
                                                            SettingsServices::fromShared());
        m_pendingSection.reset();
        m_settingsWindow->present();
        activateForLauncher(m_settingsWindow->window());
        return;
    }
    m_settingsWindow->present();
    activateForLauncher(m_settingsWindow->window());
    if (section)
        Q_EMIT AppEvents::shared().navigateToSettingsSection(settingsSectionLabel(*section));
}

void AppDelegate::addObservers()
{
    AppEvents &events = AppEvents::shared();
    m_onboardingObserver = connect(
        &events, &AppEvents::onboardingCompleted, this,
        [this] {
            // The flow may still be inside the click that completed it.
            if (m_onboarding) {
                if (QQuickView *window = m_onboarding->window())
                    window->close();
                m_onboarding.release()->deleteLater();
            }
            startMainApp();
        },
        Qt::QueuedConnection);
    m_settingsObserver = connect(
        &events, &AppEvents::openSettingsWindow, this, [this] { openSettings(std::nullopt); },
        Qt::QueuedConnection);
    m_openAboutObserver = connect(
        &events, &AppEvents::openAboutSection, this, [this] { openSettings(SettingsSection::about); },
        Qt::QueuedConnection);
    // A view asks for the window and then for a section in one go; the window, opened from the event
    // loop, is not there yet to hear the section, so it opens on it instead.
    connect(&events, &AppEvents::navigateToSettingsSection, this, [this](const QString &label) {
        if (m_settingsWindow)
            return;
        m_pendingSection = settingsSectionFromLabel(label);
        QTimer::singleShot(0, this, [this] { m_pendingSection.reset(); });
    });
}

void AppDelegate::applicationDidBecomeActive()
{
    if (m_keychain.load(KeychainKey::accessToken))
        QTimer::singleShot(0, this, [] { BalanceManager::shared().refreshBalance(); });
}

void AppDelegate::applicationWillTerminate()
{
    for (QMetaObject::Connection *observer :
         {&m_onboardingObserver, &m_settingsObserver, &m_openAboutObserver}) {
        if (*observer)
            disconnect(*observer);
    }
    if (m_speech)
        m_speech->stop();
    m_defaults.sync();
}
