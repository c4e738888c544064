// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/dbus/PortalColorScheme.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusServiceWatcher>
#include <QDBusVariant>

namespace {

const QString kService = QStringLiteral("org.freedesktop.portal.Desktop");
const QString kPath = QStringLiteral("/org/freedesktop/portal/desktop");
const QString kInterface = QStringLiteral("org.freedesktop.portal.Settings");
const QString kGroup = QStringLiteral("org.freedesktop.appearance");
const QString kKey = QStringLiteral("color-scheme");

// Read answers a variant inside a variant; SettingChanged sends one.
QVariant unwrapped(QVariant value)
{
    while (value.canConvert<QDBusVariant>() && value.userType() == qMetaTypeId<QDBusVariant>())
        value = value.value<QDBusVariant>().variant();
    return value;
}

} // namespace

PortalColorScheme::PortalColorScheme(const QDBusConnection &bus, QObject *parent)
    : QObject(parent)
    , m_bus(bus)
    , m_watcher(new QDBusServiceWatcher(kService, bus, QDBusServiceWatcher::WatchForRegistration, this))
{
    m_bus.connect(kService, kPath, kInterface, QStringLiteral("SettingChanged"), this,
                  SLOT(settingChanged(QString, QString, QDBusVariant)));
    connect(m_watcher, &QDBusServiceWatcher::serviceRegistered, this, &PortalColorScheme::read);
    read();
}

void PortalColorScheme::read()
{
    QDBusMessage call = QDBusMessage::createMethodCall(kService, kPath, kInterface, QStringLiteral("Read"));
    call << kGroup << kKey;
    // A portal started for us could take the session's portal name from the desktop's own.
    call.setAutoStartService(false);
    auto *pending = new QDBusPendingCallWatcher(m_bus.asyncCall(call), this);
    connect(pending, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher *reply) {
        reply->deleteLater();
        if (!reply->isError())
            setScheme(reply->reply().arguments().value(0));
    });
}

void PortalColorScheme::settingChanged(const QString &group, const QString &key, const QDBusVariant &value)
{
    if (group == kGroup && key == kKey)
        setScheme(value.variant());
}

void PortalColorScheme::setScheme(const QVariant &value)
{
    const uint raw = unwrapped(value).toUInt();
    const Scheme scheme = raw == PreferDark ? PreferDark : raw == PreferLight ? PreferLight : NoPreference;
    if (std::exchange(m_scheme, scheme) != scheme)
        Q_EMIT schemeChanged(scheme);
}
