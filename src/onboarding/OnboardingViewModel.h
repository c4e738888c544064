// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "onboarding/OnboardingPackage.h"
#include "onboarding/OnboardingStep.h"
#include "speech/SpeechManager.h"

#include <QColor>
#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QUrl>
#include <QVariantList>
#include <QtQml/qqmlregistration.h>

#include <functional>
#include <optional>

class AuthManager;
class BalanceManager;
class Clock;
class KeychainHelper;
class UserDefaults;

// The first-run flow: which step shows, the permission and the account as they change, the try-it
// narration, and purchases started in the browser. The window's QML only draws this state and forwards
// clicks. GUI thread only.
//
// On Linux "the Accessibility permission" means that selection capture works in this session: granted at
// once on X11 with the XTEST extension; elsewhere the hint says what the session lacks.
class OnboardingViewModel : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("the onboarding window creates its state")
    Q_PROPERTY(QString currentStep READ currentStepName NOTIFY currentStepChanged)
    Q_PROPERTY(bool canGoBack READ canGoBack NOTIFY currentStepChanged)
    Q_PROPERTY(bool hasPermissions READ hasPermissions NOTIFY hasPermissionsChanged)
    Q_PROPERTY(bool showPermissionError READ showPermissionError NOTIFY showPermissionErrorChanged)
    Q_PROPERTY(QString permissionHint READ permissionHint NOTIFY showPermissionErrorChanged)
    Q_PROPERTY(bool isSigningIn READ isSigningIn NOTIFY isSigningInChanged)
    // The sign-in buttons: off while a sign-in has just started, on again after kSignInRetryMs so that a
    // closed browser is no dead end (the first sign-in's callback still counts).
    Q_PROPERTY(bool canSignIn READ canSignIn NOTIFY isSigningInChanged)
    Q_PROPERTY(QString signInError READ signInErrorText NOTIFY signInErrorChanged)
    Q_PROPERTY(bool hasCompletedTryIt READ hasCompletedTryIt NOTIFY hasCompletedTryItChanged)
    Q_PROPERTY(QString tutorialPhase READ tutorialPhaseName NOTIFY tutorialPhaseChanged)
    Q_PROPERTY(bool isPurchasing READ isPurchasing NOTIFY isPurchasingChanged)
    Q_PROPERTY(QString purchaseError READ purchaseErrorText NOTIFY purchaseErrorChanged)
    Q_PROPERTY(QString highlightedPackage READ highlightedPackage WRITE setHighlightedPackage NOTIFY
                   highlightedPackageChanged)
    Q_PROPERTY(QString purchasedMinutesText READ purchasedMinutesText NOTIFY purchasedPackageChanged)
    Q_PROPERTY(QString balanceText READ balanceText NOTIFY balanceTextChanged)
    Q_PROPERTY(QString shortcutText READ shortcutText NOTIFY shortcutTextChanged)
    // The shortcut as keycaps: ["Ctrl", "Alt", "Num +"].
    Q_PROPERTY(QStringList shortcutKeys READ shortcutKeys NOTIFY shortcutTextChanged)
    // {id, name}: "cedar" is shown as "Cedar".
    Q_PROPERTY(QVariantList voices READ voices CONSTANT)
    // {name, detail, symbol}: the widget's light and dark appearances.
    Q_PROPERTY(QVariantList appearances READ appearances CONSTANT)
    // {name, colors}: the accent themes with the widget's own gradient stops.
    Q_PROPERTY(QVariantList themeItems READ themeItems CONSTANT)
    Q_PROPERTY(QVariantList packages READ packages CONSTANT)
    Q_PROPERTY(SpeechManager *speech READ speech CONSTANT)

public:
    static constexpr const char *kHasCompletedOnboardingKey = "hasCompletedOnboarding";
    static constexpr int kPermissionPollMs = 1000;
    static constexpr int kSignInRetryMs = 10000;

    enum class TutorialPhase { intro, tryIt, voice, appearance, shortcut };

    struct Services
    {
        AuthManager *auth = nullptr;
        BalanceManager *balance = nullptr;
        SpeechManager *speech = nullptr;
        KeychainHelper *keychain = nullptr;
        UserDefaults *defaults = nullptr;
        Clock *clock = nullptr; // none: the system clock
        QUrl serviceOrigin;
        // Whether selection capture works here (never prompts), and if not, why.
        std::function<bool()> isTrusted;
        std::function<QString()> untrustedReason;
        std::function<void(const QUrl &)> openUrl; // none: the desktop's browser
        // Entering the tutorial: the shortcut manager and capture must exist for the try-it narration.
        std::function<void()> prepareTryIt;
        // The narration shortcut's keys as the user reads them ("Ctrl", "Alt", "S"); none: the shared
        // manager's.
        std::function<QStringList()> shortcutKeys;
        // The appearance phase shows the floating widget (true) and then hands it back to its own rule.
        std::function<void(bool)> showWidget;
    };

    explicit OnboardingViewModel(Services services, QObject *parent = nullptr);
    ~OnboardingViewModel() override;

    OnboardingStep currentStep() const { return m_currentStep; }
    QString currentStepName() const;
    bool canGoBack() const;
    bool hasPermissions() const { return m_hasPermissions; }
    bool showPermissionError() const { return m_showPermissionError; }
    QString permissionHint() const { return m_permissionHint; }
    bool isSigningIn() const { return m_isSigningIn; }
    bool canSignIn() const { return !m_isSigningIn || m_signInWaitedLong; }
    std::optional<QString> signInError() const { return m_signInError; }
    QString signInErrorText() const { return m_signInError.value_or(QString()); }
    bool hasCompletedTryIt() const { return m_hasCompletedTryIt; }
    TutorialPhase tutorialPhase() const { return m_tutorialPhase; }
    QString tutorialPhaseName() const;
    bool isPurchasing() const { return m_isPurchasing; }
    std::optional<QString> purchaseError() const { return m_purchaseError; }
    QString purchaseErrorText() const { return m_purchaseError.value_or(QString()); }
    std::optional<OnboardingPackage> selectedPackage() const { return m_selectedPackage; }
    std::optional<OnboardingPackage> purchasedPackage() const { return m_purchasedPackage; }
    QString highlightedPackage() const { return m_highlightedPackage; }
    void setHighlightedPackage(const QString &id);
    QString purchasedMinutesText() const;
    QString balanceText() const;
    QString shortcutText() const;
    QStringList shortcutKeys() const;
    QVariantList voices() const;
    QVariantList appearances() const;
    QVariantList themeItems() const;
    QVariantList packages() const;
    SpeechManager *speech() const { return m_services.speech; }

    // The step's own way on: every step's main button. Sign-in moves on by itself once signed in;
    // the tutorial ends by finishTutorial()'s rule and completion completes onboarding.
    Q_INVOKABLE void advance();
    Q_INVOKABLE void previousStep();
    // Straight to `step`, as a restored flow or a test needs it; the views move by advance().
    void goTo(OnboardingStep step) { setCurrentStep(step); }

    Q_INVOKABLE void checkPermissions();
    // "Grant Permission": nothing to grant on a session where capture works; elsewhere the hint says why.
    Q_INVOKABLE void requestPermission();
    // Google when `google`, else Apple.
    Q_INVOKABLE void signIn(bool google);
    // Own-key users save their key in the settings window; the flow moves on once the keyring has it.
    Q_INVOKABLE void useOwnApiKey();
    Q_INVOKABLE void purchase(const QString &packageId);
    Q_INVOKABLE void completeOnboarding();

    Q_INVOKABLE void nextTutorialPhase();
    Q_INVOKABLE void skipAppearance();
    // "Finish Setup" and "Skip tutorial": buying minutes needs an account, so own-key users skip pricing.
    Q_INVOKABLE void finishTutorial();

Q_SIGNALS:
    void currentStepChanged();
    void hasPermissionsChanged();
    void showPermissionErrorChanged();
    void isSigningInChanged();
    void signInErrorChanged();
    void hasCompletedTryItChanged();
    void tutorialPhaseChanged();
    void isPurchasingChanged();
    void purchaseErrorChanged();
    void selectedPackageChanged();
    void purchasedPackageChanged();
    void highlightedPackageChanged();
    void balanceTextChanged();
    void shortcutTextChanged();

private:
    void subscribe();
    void schedulePoll();
    void pollTick();
    void failPurchase(const QString &description);
    void setCurrentStep(OnboardingStep step);
    void setTutorialPhase(TutorialPhase phase);
    void setHasPermissions(bool granted);
    void setIsSigningIn(bool signingIn);
    void holdSignInButtons();
    void setSignInError(std::optional<QString> error);
    void setHasCompletedTryIt(bool done);
    void setIsPurchasing(bool purchasing);
    void setPurchaseError(std::optional<QString> error);
    bool hasKeychainItem(bool accessToken) const;

    Services m_services;
    OnboardingStep m_currentStep = OnboardingStep::welcome;
    bool m_hasPermissions = false;
    bool m_showPermissionError = false;
    QString m_permissionHint;
    bool m_isSigningIn = false;
    bool m_signInWaitedLong = false;
    int m_signInGeneration = 0;
    std::optional<QString> m_signInError;
    bool m_hasCompletedTryIt = false;
    bool m_isPurchasing = false;
    std::optional<QString> m_purchaseError;
    std::optional<OnboardingPackage> m_selectedPackage;
    std::optional<OnboardingPackage> m_purchasedPackage;
    QString m_highlightedPackage = QStringLiteral("popular");
    TutorialPhase m_tutorialPhase = TutorialPhase::intro;
    // "Use my own API key" was chosen: the poll watches the keyring for the key.
    bool m_waitingForOwnKey = false;
    bool m_cameByOwnKey = false;
};
