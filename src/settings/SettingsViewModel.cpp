// SPDX-License-Identifier: GPL-3.0-or-later
#include "settings/SettingsViewModel.h"

#include "account/AuthManager.h"
#include "account/BalanceManager.h"
#include "settings/ApiKeySettingsModel.h"
#include "settings/AppearanceSettingsModel.h"
#include "settings/HistorySettingsModel.h"
#include "settings/ShortcutSettingsModel.h"
#include "settings/UsageSettingsModel.h"
#include "settings/VoiceSettingsModel.h"
#include "widget/FloatingWindowController.h"

#include <QCoreApplication>

SettingsViewModel::SettingsViewModel(std::optional<SettingsSection> initialSection, SettingsServices services,
                                     QObject *parent)
    : QObject(parent)
    , m_current(initialSection.value_or(SettingsSection::account))
    , m_services(std::move(services))
{
    SettingsServices &s = m_services;
    if (!s.ownKeyChanged) {
        s.ownKeyChanged = [] {
            if (FloatingWindowController::hasShared())
                FloatingWindowController::shared().updateVisibility();
        };
    }
    if (s.speech) {
        m_voice = new VoiceSettingsModel(*s.speech, this);
        if (s.defaults)
            m_appearance = new AppearanceSettingsModel(*s.speech, *s.defaults, s.ownKeyChanged, this);
        if (s.history)
            m_history = new HistorySettingsModel(*s.history, *s.speech, s.chooseExportPath, this);
    }
    // Also without global shortcuts: the section is where a missing permission sends the user.
    m_shortcuts = new ShortcutSettingsModel(s.hotkeys, s.captureProblem, this);
    if (s.keychain && s.defaults) {
        m_apiKeys = new ApiKeySettingsModel({.keychain = s.keychain,
                                             .defaults = s.defaults,
                                             .speech = s.speech,
                                             .network = s.network,
                                             .openAIOrigin = s.openAIOrigin,
                                             .openAIOriginFromEnvironment = s.openAIOriginFromEnvironment,
                                             .ownKeyChanged = s.ownKeyChanged},
                                            this);
    }
    if (s.usage)
        m_usage = new UsageSettingsModel(*s.usage, s.auth, s.balance, this);
    if (s.defaults)
        m_about = new AboutSettingsModel(s.defaults, Autostart(), s.website, this);
    if (s.auth && s.balance) {
        m_auth = s.auth;
        m_balance = s.balance;
    }
    connect(this, &SettingsViewModel::currentSectionChanged, this, &SettingsViewModel::refreshShownSection);
}

QStringList SettingsViewModel::sections() const
{
    QStringList labels;
    for (SettingsSection section : allSettingsSections())
        labels.append(settingsSectionLabel(section));
    return labels;
}

int SettingsViewModel::currentIndex() const
{
    return int(allSettingsSections().indexOf(m_current));
}

QString SettingsViewModel::version() const
{
    return QCoreApplication::applicationVersion();
}

void SettingsViewModel::select(SettingsSection section)
{
    if (m_current == section)
        return;
    // A recorder left waiting would take the next combination typed after coming back.
    m_shortcuts->setRecordingRow(-1);
    // What was typed and not saved does not wait for the next visit.
    if (m_apiKeys)
        m_apiKeys->discardDraft();
    m_current = section;
    if (section == SettingsSection::shortcuts)
        m_shortcuts->refreshCaptureProblem();
    Q_EMIT currentSectionChanged();
}

bool SettingsViewModel::selectLabel(const QString &label)
{
    const std::optional<SettingsSection> section = settingsSectionFromLabel(label);
    if (!section)
        return false;
    select(*section);
    return true;
}

void SettingsViewModel::windowActivated()
{
    if (m_apiKeys)
        m_apiKeys->reloadKey();
    m_shortcuts->refreshCaptureProblem();
}

void SettingsViewModel::adoptServices(const SettingsServices &latest)
{
    if (!m_services.hotkeys && latest.hotkeys) {
        m_services.hotkeys = latest.hotkeys;
        m_shortcuts->setHotkeys(latest.hotkeys);
    }
    m_shortcuts->refreshCaptureProblem();
}

void SettingsViewModel::refreshShownSection()
{
    if (m_current == SettingsSection::account && m_services.balance && m_services.auth &&
        m_services.auth->isSignedIn())
        m_services.balance->refreshBalance();
    if (m_current == SettingsSection::usage && m_usage)
        m_usage->refresh();
}
