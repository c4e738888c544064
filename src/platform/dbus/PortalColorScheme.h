// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QDBusConnection>
#include <QObject>

class QDBusServiceWatcher;
class QDBusVariant;

// The desktop's colour scheme as the settings portal reports it (org.freedesktop.appearance
// color-scheme), followed as the user changes it. Never starts a portal: until one runs, or where it
// says nothing, the scheme is NoPreference. GUI thread only.
class PortalColorScheme : public QObject
{
    Q_OBJECT

public:
    // The portal's values.
    enum Scheme { NoPreference = 0, PreferDark = 1, PreferLight = 2 };
    Q_ENUM(Scheme)

    explicit PortalColorScheme(const QDBusConnection &bus = QDBusConnection::sessionBus(),
                               QObject *parent = nullptr);

    Scheme scheme() const { return m_scheme; }

Q_SIGNALS:
    void schemeChanged(PortalColorScheme::Scheme scheme);

private Q_SLOTS:
    void settingChanged(const QString &group, const QString &key, const QDBusVariant &value);

private:
    void read();
    void setScheme(const QVariant &value);

    QDBusConnection m_bus;
    QDBusServiceWatcher *m_watcher;
    Scheme m_scheme = NoPreference;
};
