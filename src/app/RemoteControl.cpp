// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/RemoteControl.h"

#include "account/AuthManager.h"
#include "account/BalanceManager.h"
#include "account/KeychainHelper.h"
#include "capture/SelectionCapture.h"
#include "core/AppEvents.h"
#include "core/Logging.h"
#include "settings/SettingsSection.h"
#include "shortcuts/HotkeyManager.h"
#include "speech/NarrationText.h"
#include "speech/SpeechError.h"
#include "speech/SpeechManager.h"

#include <QJsonArray>
#include <QRegularExpression>
#include <QTimer>
#include <QUrl>

RemoteControl::RemoteControl(SpeechManager &speech, HotkeyManager *hotkeys)
    : m_speech(speech)
    , m_hotkeys(hotkeys)
{}

const QStringList &RemoteControl::controlCommands()
{
    static const QStringList commands{QStringLiteral("narrate-selection"),
                                      QStringLiteral("toggle"),
                                      QStringLiteral("stop"),
                                      QStringLiteral("skip-back"),
                                      QStringLiteral("skip-forward"),
                                      QStringLiteral("cycle-speed"),
                                      QStringLiteral("status")};
    return commands;
}

namespace {

QJsonObject refusal(const QString &why)
{
    return QJsonObject{{QStringLiteral("ok"), false}, {QStringLiteral("error"), why}};
}

// After a purchase: the refresh first, then the window that shows the new balance (the application has
// no window of its own to bring forward).
void refreshThenShowAccount()
{
    const auto showAccount = [] {
        Q_EMIT AppEvents::shared().openSettingsWindow();
        Q_EMIT AppEvents::shared().navigateToSettingsSection(settingsSectionLabel(SettingsSection::account));
    };
    BalanceManager &balance = BalanceManager::shared();
    balance.refreshBalance();
    if (balance.isLoading())
        QObject::connect(&balance, &BalanceManager::refreshFinished, &balance, showAccount,
                         Qt::SingleShotConnection);
    else
        showAccount(); // throttled: the balance is a moment old
}

} // namespace

std::optional<QString> RemoteControl::startSpeaking(const QString &text)
{
    if (NarrationText::normalizedText(text).isEmpty())
        return QStringLiteral("Nothing to narrate: the text is empty.");
    // An error left from an earlier narration must not pass for this one's.
    m_speech.setCurrentError(std::nullopt);
    m_speech.speak(text);
    if (m_speech.currentError() && !m_speech.isProcessing())
        return m_speech.currentErrorDescription();
    return std::nullopt;
}

void RemoteControl::speakAndWait(const QString &text, std::function<void(const QJsonObject &)> reply)
{
    if (const std::optional<QString> refused = startSpeaking(text))
        return reply(refusal(*refused));
    // One answer, whichever comes first; the watcher's connections end with it.
    auto *watch = new QObject(&m_speech);
    auto pending = std::make_shared<std::function<void(const QJsonObject &)>>(std::move(reply));
    const auto answer = [watch, pending](const QJsonObject &outcome) {
        if (const auto send = std::exchange(*pending, {})) {
            watch->deleteLater();
            send(outcome);
        }
    };
    SpeechManager &speech = m_speech;
    QObject::connect(&speech, &SpeechManager::playbackEnded, watch, [answer] {
        answer(QJsonObject{{QStringLiteral("ok"), true}});
    });
    QObject::connect(&speech, &SpeechManager::currentErrorChanged, watch, [answer, &speech] {
        if (speech.currentError() && !speech.isPlaying())
            answer(refusal(speech.currentErrorDescription()));
    });
    QObject::connect(&speech, &SpeechManager::hasContentChanged, watch, [answer, &speech] {
        if (!speech.hasContent())
            answer(refusal(QStringLiteral("The narration was stopped.")));
    });
}

QJsonObject RemoteControl::handle(const QString &command, const QString &argument)
{
    const QJsonObject ok{{QStringLiteral("ok"), true}};
    // Each action runs in a later turn of the event loop, so the caller gets its answer at once.
    const auto later = [this](auto action) { QTimer::singleShot(0, &m_speech, action); };
    if (command == u"narrate-selection") {
        // Like the narration shortcut: capture, then speak the text as captured. Where capture cannot
        // work (the desktop's own binding in a Wayland session) the widget says so, as for the
        // shortcut, and its "Open Settings" shows why; the caller hears it too.
        if (!SelectionCapture::shared().isProcessTrusted(false)) {
            m_speech.setCurrentError(SpeechError::make(SpeechError::accessibilityPermissionMissing));
            return refusal(m_speech.currentErrorDescription());
        }
        later([this] {
            if (const std::optional<QString> text = SelectionCapture::shared().captureSelectedText())
                m_speech.speak(*text);
        });
    } else if (command == u"toggle") {
        later([this] { m_speech.togglePlayPause(); });
    } else if (command == u"stop") {
        later([this] { m_speech.stop(); });
    } else if (command == u"skip-back") {
        later([this] { m_speech.skipBackward(); });
    } else if (command == u"skip-forward") {
        later([this] { m_speech.skipForward(); });
    } else if (command == u"cycle-speed") {
        m_speech.cyclePlaybackSpeed();
    } else if (command == u"speak") {
        if (const std::optional<QString> refused = startSpeaking(argument))
            return refusal(*refused);
    } else if (command == u"activate") {
        if (!m_raiseOnboarding || !m_raiseOnboarding())
            Q_EMIT AppEvents::shared().openSettingsWindow();
    } else if (command == u"settings") {
        Q_EMIT AppEvents::shared().openSettingsWindow();
    } else if (command == u"open-url") {
        routeUrl(argument);
    } else if (command == u"status") {
        return QJsonObject{{QStringLiteral("ok"), true}, {QStringLiteral("status"), status()}};
    } else {
        return refusal(QStringLiteral("unknown command"));
    }
    return ok;
}

QJsonObject RemoteControl::status() const
{
    QJsonValue error = QJsonValue::Null;
    if (m_speech.currentError())
        error = QJsonObject{{QStringLiteral("id"), m_speech.currentErrorId()},
                            {QStringLiteral("description"), m_speech.currentErrorDescription()}};

    const AuthManager &auth = AuthManager::shared();
    const BalanceManager &balance = BalanceManager::shared();
    const QJsonValue email = auth.isSignedIn() ? QJsonValue(auth.email()) : QJsonValue(QJsonValue::Null);

    QJsonArray shortcuts;
    if (m_hotkeys) {
        const HotkeyManager &h = *m_hotkeys;
        const struct
        {
            const char *action;
            HotkeyManager::Binding binding;
            quint32 key;
            quint64 modifiers;
        } rows[] = {
            {"narrate", HotkeyManager::Narration, h.currentKey(), h.currentModifiers()},
            {"playPause", HotkeyManager::PlayPause, h.playPauseKey(), h.playPauseModifiers()},
            {"stop", HotkeyManager::Stop, h.stopKey(), h.stopModifiers()},
            {"skipBack", HotkeyManager::SkipBack, h.skipBackKey(), h.skipBackModifiers()},
            {"skipForward", HotkeyManager::SkipForward, h.skipForwardKey(), h.skipForwardModifiers()},
            {"cycleSpeed", HotkeyManager::CycleSpeed, h.cycleSpeedKey(), h.cycleSpeedModifiers()},
        };
        for (const auto &row : rows) {
            QJsonObject shortcut{
                {QStringLiteral("action"), QLatin1String(row.action)},
                {QStringLiteral("label"), HotkeyManager::shortcutLabel(row.key, row.modifiers)},
                {QStringLiteral("registered"), h.isRegistered(row.binding)}};
            if (const QString problem = h.registrationProblem(row.binding); !problem.isEmpty())
                shortcut.insert(QStringLiteral("problem"), problem);
            shortcuts.append(shortcut);
        }
    }

    // The backend narration would choose now (never the key itself).
    KeychainHelper &keychain = KeychainHelper::shared();
    const bool hasAccessToken = keychain.load(KeychainKey::accessToken).has_value();
    const bool apiKeyStored = keychain.load(KeychainKey::openAIAPIKey).has_value();
    const QString backend = hasAccessToken ? QStringLiteral("service")
                            : apiKeyStored ? QStringLiteral("ownKey")
                                           : QStringLiteral("none");

    return QJsonObject{
        {QStringLiteral("backend"), backend},
        {QStringLiteral("apiKeyStored"), apiKeyStored},
        {QStringLiteral("isProcessing"), m_speech.isProcessing()},
        {QStringLiteral("isPlaying"), m_speech.isPlaying()},
        {QStringLiteral("hasContent"), m_speech.hasContent()},
        {QStringLiteral("currentTime"), m_speech.currentTime()},
        {QStringLiteral("totalTime"), m_speech.totalTime()},
        {QStringLiteral("displayedTotalTime"), m_speech.displayedTotalTime()},
        {QStringLiteral("playbackSpeed"), double(m_speech.playbackSpeed())},
        {QStringLiteral("selectedVoice"), m_speech.selectedVoice()},
        {QStringLiteral("selectedVoiceStyle"), m_speech.selectedVoiceStyleRawValue()},
        {QStringLiteral("currentError"), error},
        {QStringLiteral("auth"),
         QJsonObject{{QStringLiteral("state"), auth.stateName()}, {QStringLiteral("email"), email}}},
        {QStringLiteral("balanceSeconds"), balance.balanceSeconds()},
        {QStringLiteral("minutesRemaining"), balance.minutesRemaining()},
        {QStringLiteral("shortcuts"), shortcuts},
    };
}

RemoteControl::UrlRoute RemoteControl::urlRoute(const QString &text)
{
    const qsizetype schemeEnd = text.indexOf(QStringLiteral("://"));
    if (schemeEnd < 0)
        return UrlRoute::Ignored;
    const QStringView rest = QStringView(text).mid(schemeEnd + 3);
    qsizetype authorityEnd = 0;
    while (authorityEnd < rest.size() && !QStringView(u"/?#").contains(rest[authorityEnd]))
        ++authorityEnd;
    QStringView host = rest.first(authorityEnd);
    host = host.mid(host.lastIndexOf(u'@') + 1);
    if (const qsizetype port = host.indexOf(u':'); port >= 0)
        host = host.first(port);
    QStringView path = rest.mid(authorityEnd);
    if (const qsizetype end = path.indexOf(QRegularExpression(QStringLiteral("[?#]"))); end >= 0)
        path = path.first(end);
    if (host == u"auth" && path == u"/callback")
        return UrlRoute::AuthCallback;
    if (host == u"purchase" && path == u"/success")
        return UrlRoute::PurchaseSuccess;
    return UrlRoute::Ignored;
}

void RemoteControl::routeUrl(const QString &text)
{
    const QUrl url(text, QUrl::StrictMode);
    const UrlRoute route = url.isValid() ? urlRoute(text) : UrlRoute::Ignored;
    switch (route) {
    case UrlRoute::AuthCallback:
        AuthManager::shared().handleCallback(url);
        return;
    case UrlRoute::PurchaseSuccess:
        // During the first run the flow shows the purchase and refreshes the balance itself.
        if (m_raiseOnboarding && m_raiseOnboarding()) {
            Q_EMIT AppEvents::shared().onboardingPurchaseSuccess();
            return;
        }
        qCInfo(lcApp) << "purchase completed";
        refreshThenShowAccount();
        return;
    case UrlRoute::Ignored:
        qCInfo(lcApp) << "ignoring unknown callback URL";
        return;
    }
}
