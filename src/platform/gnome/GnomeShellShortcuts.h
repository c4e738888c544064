// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/ActionShortcuts.h"

#include <QDBusConnection>
#include <QObject>

class QDBusServiceWatcher;

// System-wide keys through our GNOME Shell extension: every bind() hands the combinations to it
// (BindShortcuts), and it sends Activated to us alone when one is pressed. The extension holds the keys
// while we are on the bus; when it goes away (switched off, GNOME Shell restarting) the assignments
// empty, and when it comes back the last set is bound again. GUI thread only.
class GnomeShellShortcuts final : public QObject, public ActionShortcuts
{
    Q_OBJECT

public:
    explicit GnomeShellShortcuts(QDBusConnection bus = QDBusConnection::sessionBus(),
                                 QObject *parent = nullptr);
    ~GnomeShellShortcuts() override;

    // GNOME on Wayland with the extension running, or installed and only switched off: the keys then
    // work as soon as the user enables it.
    static bool isAvailable(QDBusConnection bus = QDBusConnection::sessionBus());

    // "CTRL+ALT+s" → "<Control><Alt>s", as GNOME Shell's accelerators read; empty for a trigger without a
    // key or with a modifier it does not know.
    static QString accelerator(const QString &trigger);
    // "CTRL+ALT+s" → "Ctrl+Alt+S".
    static QString label(const QString &trigger);

    void bind(const QList<Shortcut> &shortcuts) override;
    void setAssignmentsHandler(std::function<void(const Assignments &)> handler) override;
    void setActivationHandler(std::function<void(const QString &id)> handler) override;

private Q_SLOTS:
    void onActivated(const QString &id);

private:
    void sendBind();
    void publish(const Assignments &assignments);

    QDBusConnection m_bus;
    QDBusServiceWatcher *m_watcher;
    QList<Shortcut> m_shortcuts;
    Assignments m_assignments;
    // Answers to an earlier bind() that arrive after a later one are stale.
    quint64 m_bindGeneration = 0;
    std::function<void(const Assignments &)> m_assignmentsHandler;
    std::function<void(const QString &)> m_activationHandler;
};
