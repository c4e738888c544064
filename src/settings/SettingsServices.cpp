// SPDX-License-Identifier: GPL-3.0-or-later
#include "settings/SettingsServices.h"

#include "account/AuthManager.h"
#include "account/BalanceManager.h"
#include "account/KeychainHelper.h"
#include "capture/SelectionCapture.h"
#include "core/DeploymentConfig.h"
#include "core/SharedInstance.h"
#include "core/UserDefaults.h"
#include "records/HistoryManager.h"
#include "records/UsageManager.h"
#include "shortcuts/HotkeyManager.h"
#include "speech/SpeechManager.h"

SettingsServices SettingsServices::fromShared()
{
    SettingsServices s;
    if (SharedInstance<SpeechManager>::has())
        s.speech = &SpeechManager::shared();
    if (AuthManager::hasShared())
        s.auth = &AuthManager::shared();
    if (SharedInstance<BalanceManager>::has())
        s.balance = &BalanceManager::shared();
    if (SharedInstance<HotkeyManager>::has())
        s.hotkeys = &HotkeyManager::shared();
    s.keychain = &KeychainHelper::shared();
    s.history = &HistoryManager::shared();
    s.usage = &UsageManager::shared();
    s.defaults = &UserDefaults::standard();
    const DeploymentConfig &config = DeploymentConfig::current();
    s.openAIOrigin = config.openAIOrigin;
    s.openAIOriginFromEnvironment = config.openAIOriginFromEnvironment;
    s.website = config.serviceOrigin;
    s.captureProblem = [] { return SelectionCapture::shared().untrustedReason(); };
    return s;
}
