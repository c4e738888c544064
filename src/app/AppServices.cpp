// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/AppServices.h"

#include "account/KeychainHelper.h"
#include "core/DeploymentConfig.h"
#include "core/UserDefaults.h"
#include "platform/AudioSinkFactory.h"
#include "speech/NarrationServices.h"
#include "speech/SpeechManager.h"

#include <QCoreApplication>

SpeechManager &createSharedSpeechManager()
{
    // Until an account session is wired in, service mode finds the user signed out; until a capture
    // backend exists, no selection can be read.
    static SignedOutAccount account;
    static NoSelection selection;

    const DeploymentConfig &config = DeploymentConfig::current();
    SpeechManager::Services services;
    services.defaults = &UserDefaults::standard();
    services.keychain = &KeychainHelper::shared();
    services.account = &account;
    services.selection = &selection;
    services.audioSink = createAudioSink(config.audioOutput);
    services.serviceOrigin = config.serviceOrigin;
    services.openAIOrigin = config.openAIOrigin;
    auto *manager = new SpeechManager(std::move(services), QCoreApplication::instance());
    SpeechManager::installShared(manager);
    return *manager;
}
