// SPDX-License-Identifier: GPL-3.0-or-later
#include "StatusNotifierWatcher.h"

#include <QCoreApplication>
#include <QDBusConnectionInterface>
#include <QDBusReply>

namespace {

const QString kService = QStringLiteral("org.kde.StatusNotifierWatcher");
const QString kPath = QStringLiteral("/StatusNotifierWatcher");

QString address(const StatusNotifierWatcher::Item &item)
{
    return item.service + item.path;
}

} // namespace

StatusNotifierWatcher::StatusNotifierWatcher(const QDBusConnection &bus)
    : m_bus(bus)
{
    m_owners.setConnection(m_bus);
    m_owners.setWatchMode(QDBusServiceWatcher::WatchForUnregistration);
    connect(&m_owners, &QDBusServiceWatcher::serviceUnregistered, this, &StatusNotifierWatcher::serviceGone);
}

StatusNotifierWatcher::~StatusNotifierWatcher()
{
    if (m_bus.isConnected()) {
        m_bus.unregisterObject(kPath);
        m_bus.unregisterService(kService);
    }
}

bool StatusNotifierWatcher::start()
{
    if (!m_bus.isConnected()) {
        m_error = QStringLiteral("no session bus");
        return false;
    }
    if (!m_bus.registerObject(kPath, this,
                              QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals |
                                  QDBusConnection::ExportAllProperties)) {
        m_error = m_bus.lastError().message();
        return false;
    }
    // Queued behind an existing owner would look like success to the caller and serve nobody.
    const QDBusReply<QDBusConnectionInterface::RegisterServiceReply> reply =
        m_bus.interface()->registerService(kService, QDBusConnectionInterface::DontQueueService,
                                           QDBusConnectionInterface::DontAllowReplacement);
    if (!reply.isValid() || reply.value() != QDBusConnectionInterface::ServiceRegistered) {
        m_error =
            reply.isValid() ? QStringLiteral("another StatusNotifierWatcher runs") : reply.error().message();
        m_bus.unregisterObject(kPath);
        return false;
    }
    RegisterStatusNotifierHost(
        QStringLiteral("org.kde.StatusNotifierHost-%1").arg(QCoreApplication::applicationPid()));
    return true;
}

QStringList StatusNotifierWatcher::registeredItems() const
{
    QStringList addresses;
    for (const Item &item : m_items)
        addresses.append(address(item));
    return addresses;
}

void StatusNotifierWatcher::RegisterStatusNotifierItem(const QString &serviceOrPath,
                                                       const QDBusMessage &message)
{
    const Item item = serviceOrPath.startsWith(u'/')
                          ? Item{message.service(), serviceOrPath}
                          : Item{serviceOrPath, QStringLiteral("/StatusNotifierItem")};
    // An item registers again when a watcher (re)appears; it is still one item.
    if (registeredItems().contains(address(item)))
        return;
    // The name an item gives may be well-known: its owner's going is what ends the item.
    m_owners.addWatchedService(item.service);
    m_items.append(item);
    Q_EMIT StatusNotifierItemRegistered(address(item));
}

void StatusNotifierWatcher::RegisterStatusNotifierHost(const QString &service)
{
    m_hosts.append(service);
    Q_EMIT StatusNotifierHostRegistered();
}

void StatusNotifierWatcher::serviceGone(const QString &service)
{
    for (qsizetype i = m_items.size() - 1; i >= 0; --i) {
        if (m_items[i].service != service)
            continue;
        Q_EMIT StatusNotifierItemUnregistered(address(m_items.takeAt(i)));
    }
    m_owners.removeWatchedService(service);
}
