// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "settings/SettingsSection.h"

#include <QObject>
#include <QStringList>
#include <QtQml/qqmlregistration.h>

#include <optional>

// The settings window's own state: which section it shows. Sections are named by their labels towards
// QML and the rest of the application.
class SettingsViewModel : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("The settings window provides its view model")
    Q_PROPERTY(QStringList sections READ sections CONSTANT)
    Q_PROPERTY(QString currentSection READ currentSectionLabel NOTIFY currentSectionChanged)
    Q_PROPERTY(int currentIndex READ currentIndex NOTIFY currentSectionChanged)
    Q_PROPERTY(QString version READ version CONSTANT)

public:
    // None shows the default section, Account.
    explicit SettingsViewModel(std::optional<SettingsSection> initialSection = std::nullopt,
                               QObject *parent = nullptr);

    QStringList sections() const;
    SettingsSection currentSection() const { return m_current; }
    QString currentSectionLabel() const { return settingsSectionLabel(m_current); }
    int currentIndex() const;
    QString version() const;

    void select(SettingsSection section);
    // False, and nothing changes, for a label that names no section.
    Q_INVOKABLE bool selectLabel(const QString &label);

Q_SIGNALS:
    void currentSectionChanged();

private:
    SettingsSection m_current;
};
