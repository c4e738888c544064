// SPDX-License-Identifier: GPL-3.0-or-later
#include "settings/SettingsSection.h"

const QList<SettingsSection> &allSettingsSections()
{
    static const QList<SettingsSection> sections{SettingsSection::account,    SettingsSection::voice,
                                                 SettingsSection::appearance, SettingsSection::shortcuts,
                                                 SettingsSection::apiKeys,    SettingsSection::history,
                                                 SettingsSection::usage,      SettingsSection::about};
    return sections;
}

QString settingsSectionLabel(SettingsSection section)
{
    switch (section) {
    case SettingsSection::account:
        return QStringLiteral("Account");
    case SettingsSection::voice:
        return QStringLiteral("Voice");
    case SettingsSection::appearance:
        return QStringLiteral("Appearance");
    case SettingsSection::shortcuts:
        return QStringLiteral("Shortcuts");
    case SettingsSection::apiKeys:
        return QStringLiteral("API Keys");
    case SettingsSection::history:
        return QStringLiteral("History");
    case SettingsSection::usage:
        return QStringLiteral("Usage");
    case SettingsSection::about:
        return QStringLiteral("About");
    }
    Q_UNREACHABLE();
}

std::optional<SettingsSection> settingsSectionFromLabel(const QString &label)
{
    for (SettingsSection section : allSettingsSections()) {
        if (settingsSectionLabel(section) == label)
            return section;
    }
    return std::nullopt;
}
