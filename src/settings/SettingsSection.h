// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QList>
#include <QString>

#include <optional>

// The settings window's sections, in sidebar order. Other parts of the application name a section by
// its label ("Shortcuts"), which is also what the sidebar shows.
enum class SettingsSection { account, voice, appearance, shortcuts, apiKeys, history, usage, about };

const QList<SettingsSection> &allSettingsSections();
QString settingsSectionLabel(SettingsSection section);
// Exact, case-sensitive label match; anything else is not a section.
std::optional<SettingsSection> settingsSectionFromLabel(const QString &label);
