// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/AppServices.h"

#include "account/AuthManager.h"
#include "account/BalanceManager.h"
#include "account/KeychainHelper.h"
#include "app/SessionAccount.h"
#include "core/DeploymentConfig.h"
#include "core/UserDefaults.h"
#include "platform/AudioSinkFactory.h"
#include "platform/dbus/LogindWakeMonitor.h"
#include "records/HistoryManager.h"
#include "records/UsageManager.h"
#include "speech/NarrationServices.h"
#include "speech/SpeechManager.h"

#include <QCoreApplication>

#include <memory>

namespace {

// Finished narrations go to the shared history and usage records.
class SharedRecords final : public NarrationRecords
{
public:
    void addSession(const QString &text, const QString &voice, double durationSeconds,
                    const QByteArray &audioData) override
    {
        HistoryManager::shared().addSession(text, voice, durationSeconds, audioData);
    }
    QString audioFile(const QUuid &id) const override { return HistoryManager::shared().audioFile(id); }
    QString text(const QUuid &id) const override
    {
        for (const NarrationSession &session : HistoryManager::shared().sessions()) {
            if (session.id == id)
                return session.text;
        }
        return {};
    }
    void recordUsage(qint64 characters) override { UsageManager::shared().recordNarration(characters); }
};

} // namespace

void createSharedAccount(std::function<void(const QString &)> log)
{
    if (AuthManager::hasShared())
        return;
    const DeploymentConfig &config = DeploymentConfig::current();
    QObject *app = QCoreApplication::instance();
    auto *wake = new LogindWakeMonitor(app);

    AuthManager::Services auth;
    auth.keychain = &KeychainHelper::shared();
    auth.wake = wake;
    auth.authOrigin = config.authOrigin;
    auth.serviceOrigin = config.serviceOrigin;
    auth.anonKey = config.authAnonKey;
    auth.log = log;
    AuthManager::installShared(new AuthManager(std::move(auth), app));

    BalanceManager::Services balance;
    balance.auth = &AuthManager::shared();
    balance.wake = wake;
    balance.serviceOrigin = config.serviceOrigin;
    balance.log = std::move(log);
    BalanceManager::installShared(new BalanceManager(std::move(balance), app));
}

void whenAccountSettled(QObject *context, std::function<void()> then)
{
    AuthManager &auth = AuthManager::shared();
    BalanceManager &balance = BalanceManager::shared();
    const bool waitForSession = auth.state() == AuthManager::State::unknown;
    const bool waitForBalance = auth.isSignedIn() && balance.isLoading();
    if (!waitForSession && !waitForBalance)
        return then();
    // One-shot: whichever signal comes, look again.
    auto connections = std::make_shared<QList<QMetaObject::Connection>>();
    const auto again = [context, then, connections] {
        for (const QMetaObject::Connection &c : std::as_const(*connections))
            QObject::disconnect(c);
        whenAccountSettled(context, then);
    };
    if (waitForSession)
        connections->append(QObject::connect(&auth, &AuthManager::stateChanged, context, again));
    else
        connections->append(QObject::connect(&balance, &BalanceManager::refreshFinished, context, again));
}

SpeechManager &createSharedSpeechManager(SelectionSource *selection)
{
    createSharedAccount();
    static SessionAccount account(AuthManager::shared(), BalanceManager::shared());
    static NoSelection noSelection;
    static SharedRecords records;

    const DeploymentConfig &config = DeploymentConfig::current();
    SpeechManager::Services services;
    services.defaults = &UserDefaults::standard();
    services.keychain = &KeychainHelper::shared();
    services.account = &account;
    services.selection = selection ? selection : &noSelection;
    services.records = &records;
    services.audioSink = createAudioSink(config.audioOutput);
    services.serviceOrigin = config.serviceOrigin;
    services.openAIOrigin = config.openAIOrigin;
    services.openAIOriginFromEnvironment = config.openAIOriginFromEnvironment;
    auto *manager = new SpeechManager(std::move(services), QCoreApplication::instance());
    SpeechManager::installShared(manager);
    return *manager;
}
