// SPDX-License-Identifier: GPL-3.0-or-later
#include "OnboardingShots.h"

#include "ShotSupport.h"
#include "account/KeychainHelper.h"
#include "core/AppEvents.h"
#include "onboarding/OnboardingWindow.h"
#include "platform/null/MemorySecretStore.h"

#include <QGuiApplication>
#include <QKeyEvent>
#include <QQuickItem>
#include <QQuickView>
#include <QTextStream>

int shootOnboarding(const QDir &out, const QString &suffix, SpeechManager &speech)
{
    KeychainHelper keychain(QStringLiteral("screenshots-onboarding"), std::make_unique<MemorySecretStore>());
    OfflineAccount account(keychain);

    bool trusted = false;
    OnboardingViewModel::Services services;
    services.auth = &account.auth;
    services.balance = &account.balance;
    services.keychain = &keychain;
    services.serviceOrigin = QUrl(QStringLiteral("http://127.0.0.1:9"));
    services.openUrl = [](const QUrl &) {};
    services.speech = &speech;
    services.isTrusted = [&trusted] { return trusted; };
    services.untrustedReason = [] {
        return QStringLiteral("This is a Wayland session: selection capture needs an X11 session for now.");
    };
    services.shortcutKeys = [] { return QStringList{"Ctrl", "Alt", "S"}; };
    OnboardingWindow onboarding(std::move(services));
    OnboardingViewModel &vm = *onboarding.viewModel();
    onboarding.present();

    int written = 0;
    const auto shoot = [&](const QString &name) {
        settle(450); // the step's entrance animation
        const QString path =
            out.filePath(QStringLiteral("onboarding-") + name + suffix + QStringLiteral(".png"));
        if (onboarding.window()->grabWindow().save(path))
            ++written;
        else
            QTextStream(stderr) << "could not write " << path << Qt::endl;
    };

    // The keyboard focus as Tab leaves it, from the top of the step.
    const auto tabTo = [&](int tabs) {
        onboarding.window()->contentItem()->forceActiveFocus();
        for (int i = 0; i < tabs; ++i) {
            QKeyEvent press(QEvent::KeyPress, Qt::Key_Tab, Qt::NoModifier);
            QKeyEvent release(QEvent::KeyRelease, Qt::Key_Tab, Qt::NoModifier);
            QGuiApplication::sendEvent(onboarding.window(), &press);
            QGuiApplication::sendEvent(onboarding.window(), &release);
        }
    };

    shoot(QStringLiteral("1-welcome"));
    vm.advance();
    shoot(QStringLiteral("2-sign-in"));
    tabTo(1);
    shoot(QStringLiteral("2-sign-in-focus"));
    vm.goTo(OnboardingStep::freeMinutes);
    shoot(QStringLiteral("3-free-minutes"));
    vm.goTo(OnboardingStep::permissions);
    vm.requestPermission();
    shoot(QStringLiteral("4-permissions-missing"));
    trusted = true;
    vm.checkPermissions();
    shoot(QStringLiteral("4-permissions-granted"));
    vm.goTo(OnboardingStep::tutorial);
    shoot(QStringLiteral("5-tutorial-intro"));
    vm.nextTutorialPhase();
    shoot(QStringLiteral("5-tutorial-try-it"));
    speech.replayStoredAudio(QByteArray(48000, '\0'));
    shoot(QStringLiteral("5-tutorial-try-it-done"));
    speech.stop();
    vm.nextTutorialPhase();
    shoot(QStringLiteral("5-tutorial-voice"));
    tabTo(2);
    shoot(QStringLiteral("5-tutorial-voice-focus"));
    vm.nextTutorialPhase();
    shoot(QStringLiteral("5-tutorial-appearance"));
    vm.nextTutorialPhase();
    shoot(QStringLiteral("5-tutorial-shortcut"));
    vm.goTo(OnboardingStep::pricing);
    shoot(QStringLiteral("6-pricing"));
    tabTo(2);
    shoot(QStringLiteral("6-pricing-focus"));
    vm.purchase(QStringLiteral("popular")); // no account here: shows the failure text
    shoot(QStringLiteral("6-pricing-error"));
    Q_EMIT AppEvents::shared().onboardingPurchaseSuccess();
    // Signed out, the refresh that follows a purchase finds nothing; then the balance as the service
    // reports it after the popular package on top of the free minutes (8h 40m).
    settle(50);
    account.balance.deductSeconds(-(20 + 500) * 60.0);
    shoot(QStringLiteral("7-purchase-confirmation"));
    vm.goTo(OnboardingStep::completion);
    shoot(QStringLiteral("8-completion"));
    return written;
}
