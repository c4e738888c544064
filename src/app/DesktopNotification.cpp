// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/DesktopNotification.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QStringList>
#include <QVariantMap>

void showDesktopNotification(const QString &summary, const QString &body)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return;
    QDBusMessage notify = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("/org/freedesktop/Notifications"),
        QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("Notify"));
    // app name, replaces id, icon, summary, body, actions, hints, expire timeout (-1: the server's)
    notify << QStringLiteral("Quillvox") << 0u << QStringLiteral("quillvox") << summary << body
           << QStringList() << QVariantMap() << -1;
    bus.send(notify);
}
