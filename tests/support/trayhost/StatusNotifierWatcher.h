// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusServiceWatcher>

// The watcher and host that a desktop panel runs, on one bus. Applications look for a registered host
// once, when they start: start this first, and their tray item comes to it over D-Bus instead of an
// XEmbed icon.
class StatusNotifierWatcher : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
    Q_PROPERTY(QStringList RegisteredStatusNotifierItems READ registeredItems)
    Q_PROPERTY(bool IsStatusNotifierHostRegistered READ isHostRegistered)
    Q_PROPERTY(int ProtocolVersion READ protocolVersion)

public:
    struct Item
    {
        QString service; // the unique or well-known name of the item's owner
        QString path;
    };

    explicit StatusNotifierWatcher(const QDBusConnection &bus = QDBusConnection::sessionBus());
    ~StatusNotifierWatcher() override;

    // Claims org.kde.StatusNotifierWatcher with a host of our own; false when another watcher has it.
    bool start();
    QString errorString() const { return m_error; }

    QList<Item> items() const { return m_items; }

    QStringList registeredItems() const;
    bool isHostRegistered() const { return !m_hosts.isEmpty(); }
    static int protocolVersion() { return 0; }

public Q_SLOTS:
    // `serviceOrPath`: a bus name (the item is then at /StatusNotifierItem) or an object path of the
    // caller's; both forms are in use.
    void RegisterStatusNotifierItem(const QString &serviceOrPath, const QDBusMessage &message);
    void RegisterStatusNotifierHost(const QString &service);

Q_SIGNALS:
    void StatusNotifierItemRegistered(const QString &item);
    void StatusNotifierItemUnregistered(const QString &item);
    void StatusNotifierHostRegistered();
    void StatusNotifierHostUnregistered();

private:
    void serviceGone(const QString &service);

    QDBusConnection m_bus;
    QDBusServiceWatcher m_owners;
    QList<Item> m_items;
    QStringList m_hosts;
    QString m_error;
};
