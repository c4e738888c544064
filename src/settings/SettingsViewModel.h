// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "settings/AboutSettingsModel.h"
#include "settings/ApiKeySettingsModel.h"
#include "settings/AppearanceSettingsModel.h"
#include "settings/HistorySettingsModel.h"
#include "settings/SettingsSection.h"
#include "settings/SettingsServices.h"
#include "settings/ShortcutSettingsModel.h"
#include "settings/UsageSettingsModel.h"
#include "settings/VoiceSettingsModel.h"

#include <QObject>
#include <QStringList>
#include <QtQml/qqmlregistration.h>

#include <optional>

// The settings window's own state: which section it shows, and each section's view model (none where
// the section's manager is missing). Sections are named by their labels towards QML and the rest of the
// application.
class SettingsViewModel : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("The settings window provides its view model")
    Q_PROPERTY(QStringList sections READ sections CONSTANT)
    Q_PROPERTY(QString currentSection READ currentSectionLabel NOTIFY currentSectionChanged)
    Q_PROPERTY(int currentIndex READ currentIndex NOTIFY currentSectionChanged)
    Q_PROPERTY(QString version READ version CONSTANT)
    Q_PROPERTY(VoiceSettingsModel *voice MEMBER m_voice CONSTANT)
    Q_PROPERTY(AppearanceSettingsModel *appearance MEMBER m_appearance CONSTANT)
    Q_PROPERTY(ShortcutSettingsModel *shortcuts MEMBER m_shortcuts CONSTANT)
    Q_PROPERTY(ApiKeySettingsModel *apiKeys MEMBER m_apiKeys CONSTANT)
    Q_PROPERTY(HistorySettingsModel *history MEMBER m_history CONSTANT)
    Q_PROPERTY(UsageSettingsModel *usage MEMBER m_usage CONSTANT)
    Q_PROPERTY(AboutSettingsModel *about MEMBER m_about CONSTANT)
    // The account's own managers: their published values are what the Account section shows.
    Q_PROPERTY(QObject *auth MEMBER m_auth CONSTANT)
    Q_PROPERTY(QObject *balance MEMBER m_balance CONSTANT)

public:
    // None shows the default section, Account.
    explicit SettingsViewModel(std::optional<SettingsSection> initialSection = std::nullopt,
                               SettingsServices services = {}, QObject *parent = nullptr);

    QStringList sections() const;
    SettingsSection currentSection() const { return m_current; }
    QString currentSectionLabel() const { return settingsSectionLabel(m_current); }
    int currentIndex() const;
    QString version() const;

    void select(SettingsSection section);
    // False, and nothing changes, for a label that names no section.
    Q_INVOKABLE bool selectLabel(const QString &label);

    VoiceSettingsModel *voice() const { return m_voice; }
    AppearanceSettingsModel *appearance() const { return m_appearance; }
    ShortcutSettingsModel *shortcuts() const { return m_shortcuts; }
    ApiKeySettingsModel *apiKeys() const { return m_apiKeys; }
    HistorySettingsModel *history() const { return m_history; }
    UsageSettingsModel *usage() const { return m_usage; }

    // What showing the current section asks for: a fresh balance, fresh server usage.
    void refreshShownSection();
    // The window came to the front: what changed meanwhile outside it (the keyring, the session) shows.
    void windowActivated();
    // Managers installed after the window was made (the shortcut manager, once normal operation starts)
    // join the sections that were waiting for them.
    void adoptServices(const SettingsServices &latest);

Q_SIGNALS:
    void currentSectionChanged();

private:
    SettingsSection m_current;
    SettingsServices m_services;
    VoiceSettingsModel *m_voice = nullptr;
    AppearanceSettingsModel *m_appearance = nullptr;
    ShortcutSettingsModel *m_shortcuts = nullptr;
    ApiKeySettingsModel *m_apiKeys = nullptr;
    HistorySettingsModel *m_history = nullptr;
    UsageSettingsModel *m_usage = nullptr;
    AboutSettingsModel *m_about = nullptr;
    QObject *m_auth = nullptr;
    QObject *m_balance = nullptr;
};
