// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QDBusConnection>
#include <QImage>
#include <QList>
#include <QObject>
#include <QPoint>
#include <QString>

class DBusMenuExporter;
class QDBusServiceWatcher;
class QMenu;

// A tray item as desktop panels host it (org.kde.StatusNotifierItem, with its menu exported over
// com.canonical.dbusmenu). Unlike QSystemTrayIcon it says ItemIsMenu, so that a left click opens the
// menu, and it sends the icon name and pixmap sizes we choose. It registers with the panel's
// StatusNotifierWatcher now and again whenever a watcher appears. GUI thread only.
class StatusNotifierItem : public QObject
{
    Q_OBJECT

public:
    explicit StatusNotifierItem(const QString &id, const QDBusConnection &bus = QDBusConnection::sessionBus(),
                                QObject *parent = nullptr);
    ~StatusNotifierItem() override;

    // The bus name of the panel's StatusNotifierWatcher.
    static const QString kWatcherService;

    // Claims the item's bus name and object and registers with the watcher; false without a bus.
    bool registerOnBus();
    // Takes the item off the panel again (the watcher forgets it with its bus name).
    void unregisterFromBus();
    bool isRegisteredWithWatcher() const { return m_registered; }

    // The themed icon's name and the pictures of it for hosts that draw pixmaps (ARGB32).
    void setIcon(const QString &name, const QList<QImage> &pixmaps);
    // `description` is plain text.
    void setToolTip(const QString &title, const QString &description);
    // The menu that every click but the middle one opens; it stays the caller's.
    void setMenu(QMenu *menu);

    // What the adaptor reads.
    QString id() const { return m_id; }
    QString iconName() const { return m_iconName; }
    const QList<QImage> &pixmaps() const { return m_pixmaps; }
    QString toolTipTitle() const { return m_toolTipTitle; }
    QString toolTipDescription() const { return m_toolTipDescription; }
    bool hasMenu() const { return m_menuExporter != nullptr; }

Q_SIGNALS:
    // A host that ignores ItemIsMenu asks for the primary action; `position` is where the pointer is,
    // in screen coordinates, or (0, 0) when the host does not say.
    void activateRequested(const QPoint &position);
    // The middle button.
    void secondaryActivateRequested(const QPoint &position);
    // Registered with a watcher, or its watcher went away.
    void registeredChanged(bool registered);

    // Relayed to the bus by the adaptor.
    void iconChanged();
    void toolTipChanged();

private:
    void registerWithWatcher();
    void setRegistered(bool registered);

    QDBusConnection m_bus;
    QString m_id;
    QString m_service;
    QString m_iconName;
    QList<QImage> m_pixmaps;
    QString m_toolTipTitle;
    QString m_toolTipDescription;
    DBusMenuExporter *m_menuExporter = nullptr;
    QDBusServiceWatcher *m_watcher = nullptr;
    bool m_onBus = false;
    bool m_registered = false;
};
