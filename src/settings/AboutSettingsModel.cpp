// SPDX-License-Identifier: GPL-3.0-or-later
#include "settings/AboutSettingsModel.h"

#include "core/AppEvents.h"
#include "core/UserDefaults.h"

namespace {

// The update checker's own key; it reads the same value before every automatic check.
const QString kAutomaticUpdatesKey = QStringLiteral("checkForUpdatesAutomatically");

} // namespace

AboutSettingsModel::AboutSettingsModel(UserDefaults *defaults, Autostart autostart, QObject *parent)
    : QObject(parent)
    , m_defaults(defaults)
    , m_autostart(std::move(autostart))
{}

bool AboutSettingsModel::checkForUpdatesAutomatically() const
{
    return !m_defaults || m_defaults->boolean(kAutomaticUpdatesKey).value_or(true);
}

void AboutSettingsModel::setCheckForUpdatesAutomatically(bool on)
{
    if (!m_defaults || on == checkForUpdatesAutomatically())
        return;
    m_defaults->setBoolean(kAutomaticUpdatesKey, on);
    Q_EMIT changed();
}

void AboutSettingsModel::setStartAtLogin(bool on)
{
    m_startAtLoginError = m_autostart.setEnabled(on) ? QString() : m_autostart.lastError();
    Q_EMIT changed();
}

void AboutSettingsModel::checkForUpdates()
{
    Q_EMIT AppEvents::shared().checkForUpdates();
}
