// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/dbus/SecretServiceWatcher.h"

#include <QDBusConnection>

#include <utility>

SecretServiceWatcher::SecretServiceWatcher(QObject *parent)
    : QObject(parent)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    // Any sender and any path: the service's bus name is taken by whichever keyring runs, and
    // collections come and go; unlocking one is a change of the collection.
    const QString service = QStringLiteral("org.freedesktop.Secret.Service");
    const QString collection = QStringLiteral("org.freedesktop.Secret.Collection");
    for (const auto &[interface, name] : {std::pair{collection, "ItemCreated"},
                                          {collection, "ItemDeleted"},
                                          {collection, "ItemChanged"},
                                          {service, "CollectionChanged"}})
        bus.connect(QString(), QString(), interface, QString::fromLatin1(name), this, SLOT(itemSignal()));
}

void SecretServiceWatcher::itemSignal()
{
    Q_EMIT itemsChanged();
}
