// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/AppServices.h"

#include "account/KeychainHelper.h"
#include "core/DeploymentConfig.h"
#include "core/UserDefaults.h"
#include "platform/AudioSinkFactory.h"
#include "records/HistoryManager.h"
#include "records/UsageManager.h"
#include "speech/NarrationServices.h"
#include "speech/SpeechManager.h"

#include <QCoreApplication>

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
    void recordUsage(qint64 characters) override { UsageManager::shared().recordNarration(characters); }
};

} // namespace

SpeechManager &createSharedSpeechManager(SelectionSource *selection)
{
    // Until an account session is wired in, service mode finds the user signed out.
    static SignedOutAccount account;
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
    auto *manager = new SpeechManager(std::move(services), QCoreApplication::instance());
    SpeechManager::installShared(manager);
    return *manager;
}
