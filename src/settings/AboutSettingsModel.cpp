// SPDX-License-Identifier: GPL-3.0-or-later
#include "settings/AboutSettingsModel.h"

#include "core/AppEvents.h"
#include "core/UserDefaults.h"

#include <QDesktopServices>

namespace {

// The update checker's own key; it reads the same value before every automatic check.
const QString kAutomaticUpdatesKey = QStringLiteral("checkForUpdatesAutomatically");
const QString kSkippedVersionKey = QStringLiteral("skippedVersion");

} // namespace

AboutSettingsModel::AboutSettingsModel(UserDefaults *defaults, Autostart autostart, QUrl website,
                                       QObject *parent)
    : QObject(parent)
    , m_defaults(defaults)
    , m_autostart(std::move(autostart))
    , m_website(std::move(website))
{
    connect(&AppEvents::shared(), &AppEvents::skippedVersionChanged, this, &AboutSettingsModel::changed);
}

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

QString AboutSettingsModel::skippedVersionText() const
{
    const QString version =
        m_defaults ? m_defaults->string(kSkippedVersionKey).value_or(QString()) : QString();
    return version.isEmpty() ? QString() : QStringLiteral("Skipped version: ") + version;
}

void AboutSettingsModel::forgetSkippedVersion()
{
    if (!m_defaults || !m_defaults->string(kSkippedVersionKey))
        return;
    m_defaults->remove(kSkippedVersionKey);
    Q_EMIT AppEvents::shared().skippedVersionChanged();
}

void AboutSettingsModel::openWebsite()
{
    QDesktopServices::openUrl(m_website);
}
