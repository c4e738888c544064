// SPDX-License-Identifier: GPL-3.0-or-later
#include "onboarding/OnboardingViewModel.h"

#include "account/AuthManager.h"
#include "account/BalanceManager.h"
#include "account/KeychainHelper.h"
#include "core/AppEvents.h"
#include "core/Clock.h"
#include "core/Published.h"
#include "core/SharedInstance.h"
#include "core/UserDefaults.h"
#include "shortcuts/HotkeyManager.h"
#include "speech/SpeechManager.h"
#include "speech/VoiceStyle.h"
#include "widget/WidgetPalette.h"

#include <QDesktopServices>
#include <QTimer>

#include <chrono>

namespace {

QString stepName(OnboardingStep step)
{
    switch (step) {
    case OnboardingStep::welcome:
        return QStringLiteral("welcome");
    case OnboardingStep::signIn:
        return QStringLiteral("signIn");
    case OnboardingStep::freeMinutes:
        return QStringLiteral("freeMinutes");
    case OnboardingStep::permissions:
        return QStringLiteral("permissions");
    case OnboardingStep::tutorial:
        return QStringLiteral("tutorial");
    case OnboardingStep::pricing:
        return QStringLiteral("pricing");
    case OnboardingStep::purchaseConfirmation:
        return QStringLiteral("purchaseConfirmation");
    case OnboardingStep::completion:
        return QStringLiteral("completion");
    }
    return {};
}

} // namespace

OnboardingViewModel::OnboardingViewModel(Services services, QObject *parent)
    : QObject(parent)
    , m_services(std::move(services))
{
    if (!m_services.clock)
        m_services.clock = &Clock::system();
    if (!m_services.openUrl)
        m_services.openUrl = [](const QUrl &url) { QDesktopServices::openUrl(url); };
    subscribe();
    checkPermissions();
    schedulePoll();
}

OnboardingViewModel::~OnboardingViewModel() = default;

void OnboardingViewModel::subscribe()
{
    AuthManager *auth = m_services.auth;
    if (auth) {
        const auto mirrorLoading = [this, auth] { setIsSigningIn(auth->isLoading()); };
        const auto mirrorError = [this, auth] {
            const std::optional<AuthError> error = auth->currentError();
            setSignInError(error ? std::optional<QString>(error->description()) : std::nullopt);
        };
        mirrorLoading();
        mirrorError();
        connect(auth, &AuthManager::isLoadingChanged, this, mirrorLoading);
        connect(auth, &AuthManager::currentErrorChanged, this, mirrorError);
        connect(auth, &AuthManager::stateChanged, this, [this, auth] {
            if (!auth->isSignedIn() || m_currentStep != OnboardingStep::signIn)
                return;
            setCurrentStep(OnboardingStep::freeMinutes);
            // The free minutes the service grants at sign-up should show at once.
            if (BalanceManager *balance = m_services.balance)
                QTimer::singleShot(0, balance, [balance] { balance->refreshBalance(); });
        });
    }
    if (SpeechManager *speech = m_services.speech) {
        connect(speech, &SpeechManager::isPlayingChanged, this, [this, speech] {
            if (speech->isPlaying() && m_currentStep == OnboardingStep::tutorial)
                setHasCompletedTryIt(true);
        });
    }
    if (BalanceManager *balance = m_services.balance)
        connect(balance, &BalanceManager::balanceChanged, this, &OnboardingViewModel::balanceTextChanged);
    connect(&AppEvents::shared(), &AppEvents::onboardingPurchaseSuccess, this, [this] {
        if (BalanceManager *balance = m_services.balance)
            QTimer::singleShot(0, balance, [balance] { balance->refreshBalance(); });
        if (assignIfChanged(m_purchasedPackage, m_selectedPackage))
            Q_EMIT purchasedPackageChanged();
        setCurrentStep(OnboardingStep::purchaseConfirmation);
    });
}

// --- Steps -----------------------------------------------------------------------------------------------

QString OnboardingViewModel::currentStepName() const
{
    return stepName(m_currentStep);
}

bool OnboardingViewModel::canGoBack() const
{
    // Back from the permission step leads to the free minutes, which someone who came with their own key
    // never had.
    return m_currentStep == OnboardingStep::signIn ||
           (m_currentStep == OnboardingStep::permissions && !m_cameByOwnKey);
}

void OnboardingViewModel::advance()
{
    switch (m_currentStep) {
    case OnboardingStep::welcome:
        setCurrentStep(OnboardingStep::signIn);
        break;
    case OnboardingStep::signIn:
        break;
    case OnboardingStep::freeMinutes:
        setCurrentStep(OnboardingStep::permissions);
        break;
    case OnboardingStep::permissions:
        setCurrentStep(OnboardingStep::tutorial);
        break;
    case OnboardingStep::tutorial:
        finishTutorial();
        break;
    case OnboardingStep::pricing:
    case OnboardingStep::purchaseConfirmation:
        setCurrentStep(OnboardingStep::completion);
        break;
    case OnboardingStep::completion:
        completeOnboarding();
        break;
    }
}

void OnboardingViewModel::previousStep()
{
    if (m_currentStep == OnboardingStep::signIn)
        setCurrentStep(OnboardingStep::welcome);
    else if (m_currentStep == OnboardingStep::permissions)
        setCurrentStep(OnboardingStep::freeMinutes);
}

void OnboardingViewModel::setCurrentStep(OnboardingStep step)
{
    if (m_currentStep == step)
        return;
    const bool leavingTutorial = m_currentStep == OnboardingStep::tutorial;
    if (leavingTutorial)
        setTutorialPhase(TutorialPhase::intro);
    m_currentStep = step;
    if (step == OnboardingStep::tutorial) {
        if (m_services.prepareTryIt)
            m_services.prepareTryIt();
        Q_EMIT shortcutTextChanged();
    }
    Q_EMIT currentStepChanged();
}

QString OnboardingViewModel::tutorialPhaseName() const
{
    switch (m_tutorialPhase) {
    case TutorialPhase::intro:
        return QStringLiteral("intro");
    case TutorialPhase::tryIt:
        return QStringLiteral("tryIt");
    case TutorialPhase::voice:
        return QStringLiteral("voice");
    case TutorialPhase::appearance:
        return QStringLiteral("appearance");
    case TutorialPhase::shortcut:
        return QStringLiteral("shortcut");
    }
    return {};
}

void OnboardingViewModel::setTutorialPhase(TutorialPhase phase)
{
    if (m_tutorialPhase == phase)
        return;
    const bool wasAppearance = m_tutorialPhase == TutorialPhase::appearance;
    m_tutorialPhase = phase;
    if (m_services.showWidget && (wasAppearance || phase == TutorialPhase::appearance))
        m_services.showWidget(phase == TutorialPhase::appearance);
    Q_EMIT tutorialPhaseChanged();
}

void OnboardingViewModel::nextTutorialPhase()
{
    if (m_currentStep != OnboardingStep::tutorial || m_tutorialPhase == TutorialPhase::shortcut)
        return;
    setTutorialPhase(TutorialPhase(int(m_tutorialPhase) + 1));
}

void OnboardingViewModel::skipAppearance()
{
    if (m_currentStep == OnboardingStep::tutorial && m_tutorialPhase == TutorialPhase::appearance)
        setTutorialPhase(TutorialPhase::shortcut);
}

void OnboardingViewModel::finishTutorial()
{
    if (m_currentStep != OnboardingStep::tutorial)
        return;
    const bool ownKeyOnly = !hasKeychainItem(true) && hasKeychainItem(false);
    setCurrentStep(ownKeyOnly ? OnboardingStep::completion : OnboardingStep::pricing);
}

// --- Permission and sign-in --------------------------------------------------------------------------------

void OnboardingViewModel::schedulePoll()
{
    m_services.clock->callAfter(std::chrono::milliseconds(kPermissionPollMs), this, [this] {
        pollTick();
        schedulePoll();
    });
}

void OnboardingViewModel::pollTick()
{
    checkPermissions();
    if (m_waitingForOwnKey && hasKeychainItem(false)) {
        m_waitingForOwnKey = false;
        if (m_currentStep == OnboardingStep::signIn) {
            m_cameByOwnKey = true;
            setCurrentStep(OnboardingStep::permissions);
        }
    }
}

void OnboardingViewModel::checkPermissions()
{
    const bool trusted = m_services.isTrusted && m_services.isTrusted();
    if (trusted == m_hasPermissions)
        return;
    QTimer::singleShot(0, this, [this, trusted] { setHasPermissions(trusted); });
}

void OnboardingViewModel::requestPermission()
{
    checkPermissions();
    if (m_services.isTrusted && m_services.isTrusted())
        return;
    m_permissionHint = m_services.untrustedReason ? m_services.untrustedReason() : QString();
    m_showPermissionError = true;
    Q_EMIT showPermissionErrorChanged();
}

void OnboardingViewModel::signIn(bool google)
{
    if (!m_services.auth)
        return;
    const bool again = m_isSigningIn;
    m_services.auth->signIn(google);
    // The session was still waiting for the first browser: this one gets its own 10 s.
    if (again && m_isSigningIn && std::exchange(m_signInWaitedLong, false)) {
        holdSignInButtons();
        Q_EMIT isSigningInChanged();
    }
}

void OnboardingViewModel::useOwnApiKey()
{
    m_waitingForOwnKey = true;
    Q_EMIT AppEvents::shared().openSettingsWindow();
    Q_EMIT AppEvents::shared().navigateToSettingsSection(QStringLiteral("API Keys"));
}

bool OnboardingViewModel::hasKeychainItem(bool accessToken) const
{
    return m_services.keychain &&
           m_services.keychain->load(accessToken ? KeychainKey::accessToken : KeychainKey::openAIAPIKey);
}

// --- Purchase ----------------------------------------------------------------------------------------------

void OnboardingViewModel::purchase(const QString &packageId)
{
    setIsPurchasing(true);
    setPurchaseError(std::nullopt);
    if (assignIfChanged(m_selectedPackage, OnboardingPackage::withId(packageId)))
        Q_EMIT selectedPackageChanged();
    if (!m_services.balance) {
        failPurchase(purchaseErrorDescription(PurchaseError::exchangeCodeFailed));
        return;
    }
    m_services.balance->requestPackagePurchaseUrl(packageId, this, [this](const AccountResult<QUrl> &url) {
        if (!url.ok()) {
            failPurchase(describe(url.failure()));
            return;
        }
        m_services.openUrl(url.value());
        setIsPurchasing(false);
    });
}

void OnboardingViewModel::failPurchase(const QString &description)
{
    setIsPurchasing(false);
    setPurchaseError(description);
}

void OnboardingViewModel::completeOnboarding()
{
    if (m_services.defaults) {
        m_services.defaults->setBoolean(QString::fromLatin1(kHasCompletedOnboardingKey), true);
        m_services.defaults->sync();
    }
    Q_EMIT AppEvents::shared().onboardingCompleted();
}

// --- What the views show -----------------------------------------------------------------------------------

void OnboardingViewModel::setHighlightedPackage(const QString &id)
{
    if (OnboardingPackage::withId(id) && assignIfChanged(m_highlightedPackage, id))
        Q_EMIT highlightedPackageChanged();
}

QString OnboardingViewModel::purchasedMinutesText() const
{
    if (!m_purchasedPackage)
        return {};
    return QString::number(m_purchasedPackage->minutes) + QStringLiteral(" minutes added to your account");
}

QString OnboardingViewModel::balanceText() const
{
    return m_services.balance ? m_services.balance->formattedBalance() : QString();
}

QString OnboardingViewModel::shortcutText() const
{
    return shortcutKeys().join(u'+');
}

QStringList OnboardingViewModel::shortcutKeys() const
{
    if (m_services.shortcutKeys)
        return m_services.shortcutKeys();
    if (SharedInstance<HotkeyManager>::has()) {
        const HotkeyManager &hotkeys = HotkeyManager::shared();
        return HotkeyManager::shortcutKeys(hotkeys.currentKey(), hotkeys.currentModifiers());
    }
    return HotkeyManager::shortcutKeys(HotkeyManager::defaultKey, HotkeyManager::defaultModifiers);
}

QVariantList OnboardingViewModel::voices() const
{
    QVariantList list;
    for (const QString &voice : availableVoices())
        list.append(
            QVariantMap{{QStringLiteral("id"), voice}, {QStringLiteral("name"), voiceDisplayName(voice)}});
    return list;
}

QVariantList OnboardingViewModel::appearances() const
{
    QVariantList list;
    for (WidgetAppearance appearance : {WidgetAppearance::Light, WidgetAppearance::Dark}) {
        list.append(QVariantMap{
            {QStringLiteral("name"), rawValue(appearance)},
            {QStringLiteral("detail"), appearanceDescription(appearance)},
            {QStringLiteral("symbol"), appearance == WidgetAppearance::Light ? QStringLiteral("sun.max.fill")
                                                                             : QStringLiteral("moon.fill")},
        });
    }
    return list;
}

QVariantList OnboardingViewModel::packages() const
{
    QVariantList list;
    for (const OnboardingPackage &package : OnboardingPackage::all()) {
        list.append(QVariantMap{
            {QStringLiteral("id"), package.id},
            {QStringLiteral("name"), package.name},
            {QStringLiteral("priceText"), OnboardingPackage::priceText(package.price)},
            {QStringLiteral("minutesText"),
             QString(QString::number(package.minutes) + QStringLiteral(" minutes"))},
            {QStringLiteral("hoursText"), OnboardingPackage::hoursText(package.hours)},
            {QStringLiteral("isPopular"), package.isPopular},
        });
    }
    return list;
}

QVariantList OnboardingViewModel::themeItems() const
{
    QVariantList items;
    for (WidgetTheme theme : allWidgetThemes()) {
        QVariantList colors;
        for (const QColor &color : WidgetPalette::themeColorsOf(theme))
            colors.append(color);
        items.append(
            QVariantMap{{QStringLiteral("name"), rawValue(theme)}, {QStringLiteral("colors"), colors}});
    }
    return items;
}

// --- Published values --------------------------------------------------------------------------------------

void OnboardingViewModel::setHasPermissions(bool granted)
{
    if (!assignIfChanged(m_hasPermissions, granted))
        return;
    if (granted && m_showPermissionError) {
        m_showPermissionError = false;
        Q_EMIT showPermissionErrorChanged();
    }
    Q_EMIT hasPermissionsChanged();
}

void OnboardingViewModel::setIsSigningIn(bool signingIn)
{
    if (!assignIfChanged(m_isSigningIn, signingIn))
        return;
    m_signInWaitedLong = false;
    if (signingIn)
        holdSignInButtons();
    Q_EMIT isSigningInChanged();
}

void OnboardingViewModel::holdSignInButtons()
{
    const int generation = ++m_signInGeneration;
    m_services.clock->callAfter(std::chrono::milliseconds(kSignInRetryMs), this, [this, generation] {
        if (generation != m_signInGeneration || !m_isSigningIn)
            return;
        m_signInWaitedLong = true;
        Q_EMIT isSigningInChanged();
    });
}

void OnboardingViewModel::setSignInError(std::optional<QString> error)
{
    if (assignIfChanged(m_signInError, std::move(error)))
        Q_EMIT signInErrorChanged();
}

void OnboardingViewModel::setHasCompletedTryIt(bool done)
{
    if (assignIfChanged(m_hasCompletedTryIt, done))
        Q_EMIT hasCompletedTryItChanged();
}

void OnboardingViewModel::setIsPurchasing(bool purchasing)
{
    if (assignIfChanged(m_isPurchasing, purchasing))
        Q_EMIT isPurchasingChanged();
}

void OnboardingViewModel::setPurchaseError(std::optional<QString> error)
{
    if (assignIfChanged(m_purchaseError, std::move(error)))
        Q_EMIT purchaseErrorChanged();
}
