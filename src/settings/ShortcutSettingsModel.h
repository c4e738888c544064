// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>
#include <QVariantList>
#include <QtQml/qqmlregistration.h>

class HotkeyManager;

// The Shortcuts section: the six bindings as rows, each with its recorder and a reset to its default,
// and what selection capture lacks in this session. Where no global shortcuts can exist (a Wayland
// session) there are no rows, but the section still says what capture needs.
class ShortcutSettingsModel : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("The settings window provides its view models")
    // {title, label, problem, isDefault} in table order; none without global shortcuts.
    Q_PROPERTY(QVariantList rows READ rows NOTIFY rowsChanged)
    // What selection capture lacks in this session; empty when it works.
    Q_PROPERTY(QString captureProblem READ captureProblem CONSTANT)
    // Without global shortcuts: what to bind in the desktop's own settings, and the text introducing it.
    Q_PROPERTY(QString desktopBindingsIntro READ desktopBindingsIntro CONSTANT)
    Q_PROPERTY(QString desktopBindings READ desktopBindings CONSTANT)

public:
    // `hotkeys` none: this session has no global shortcuts.
    ShortcutSettingsModel(HotkeyManager *hotkeys, QString captureProblem, QObject *parent = nullptr);

    static QString rowTitle(int row);

    QVariantList rows() const;
    QString captureProblem() const { return m_captureProblem; }
    // sway takes its key bindings from its configuration file only: there the lines to add, with the
    // default combinations; elsewhere the commands, for the desktop's keyboard settings.
    static QString desktopBindings(bool sway);
    static QString desktopBindingsIntro(bool sway);
    QString desktopBindings() const { return desktopBindings(isSway()); }
    QString desktopBindingsIntro() const { return desktopBindingsIntro(isSway()); }
    static bool isSway();
    // Why a row's combination is not active; empty when it is.
    QString problem(int row) const;

    Q_INVOKABLE void record(int row, quint32 key, quint64 modifiers);
    Q_INVOKABLE void reset(int row);

Q_SIGNALS:
    void rowsChanged();

private:
    HotkeyManager *m_hotkeys;
    QString m_captureProblem;
};
