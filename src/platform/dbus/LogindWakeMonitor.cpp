// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/dbus/LogindWakeMonitor.h"

#include "core/Logging.h"

#include <QDBusConnection>

LogindWakeMonitor::LogindWakeMonitor(QObject *parent)
    : WakeMonitor(parent)
{
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.isConnected() ||
        !bus.connect(QStringLiteral("org.freedesktop.login1"), QStringLiteral("/org/freedesktop/login1"),
                     QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("PrepareForSleep"),
                     this, SLOT(prepareForSleep(bool))))
        qCInfo(lcCore) << "no logind on the system bus; wake from sleep goes unnoticed";
}

void LogindWakeMonitor::prepareForSleep(bool sleeping)
{
    if (!sleeping)
        Q_EMIT woke();
}
