// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>
#include <QVariantList>
#include <QtQml/qqmlregistration.h>

class HotkeyManager;

// The Shortcuts section: the six bindings as rows, each with its recorder and a reset to its default.
class ShortcutSettingsModel : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("The settings window provides its view models")
    // {title, label, problem, isDefault} in table order.
    Q_PROPERTY(QVariantList rows READ rows NOTIFY rowsChanged)
    // What selection capture lacks in this session; empty when it works.
    Q_PROPERTY(QString captureProblem READ captureProblem CONSTANT)

public:
    ShortcutSettingsModel(HotkeyManager &hotkeys, QString captureProblem, QObject *parent = nullptr);

    static QString rowTitle(int row);

    QVariantList rows() const;
    QString captureProblem() const { return m_captureProblem; }
    // Why a row's combination is not active; empty when it is.
    QString problem(int row) const;

    Q_INVOKABLE void record(int row, quint32 key, quint64 modifiers);
    Q_INVOKABLE void reset(int row);

Q_SIGNALS:
    void rowsChanged();

private:
    HotkeyManager &m_hotkeys;
    QString m_captureProblem;
};
