// SPDX-License-Identifier: GPL-3.0-or-later
#include "settings/SettingsViewModel.h"

#include <QCoreApplication>

SettingsViewModel::SettingsViewModel(std::optional<SettingsSection> initialSection, QObject *parent)
    : QObject(parent)
    , m_current(initialSection.value_or(SettingsSection::account))
{}

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
    m_current = section;
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
