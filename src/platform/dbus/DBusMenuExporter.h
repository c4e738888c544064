// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QDBusConnection>
#include <QHash>
#include <QObject>
#include <QPointer>
#include <QVariantMap>

class QAction;
class QKeySequence;
class QMenu;

// A QMenu's actions as a com.canonical.dbusmenu menu, for panels that draw an item's menu themselves.
// Labels, enabled and visible states, separators and shortcuts follow the actions as they change; a
// click triggers the action. One level: submenus are not exported. GUI thread only.
class DBusMenuExporter : public QObject
{
    Q_OBJECT

public:
    DBusMenuExporter(QMenu *menu, QObject *parent = nullptr);
    ~DBusMenuExporter() override;

    bool registerOnBus(const QDBusConnection &bus, const QString &path);

    // What the adaptor reads and does.
    uint revision() const { return m_revision; }
    QList<int> ids();
    QVariantMap properties(int id);
    bool exists(int id);
    void trigger(int id);

    // The form dbusmenu gives a key sequence: [["Control", "Alt", "S"]].
    static QList<QStringList> shortcutParts(const QKeySequence &sequence);

Q_SIGNALS:
    void layoutUpdated(uint revision, int parent);

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    int idOf(QAction *action);
    QAction *actionOf(int id) const;

    QPointer<QMenu> m_menu;
    // The menu as the event filter sees it: a menu being destroyed is no QMenu any more.
    const QObject *m_menuObject;
    QDBusConnection m_bus{QString()};
    QString m_path;
    QHash<QAction *, int> m_ids;
    int m_nextId = 1;
    uint m_revision = 1;
    bool m_updatePending = false;
};
