// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/DesktopNotification.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QStringList>
#include <QVariantMap>

namespace {

const QString kService = QStringLiteral("org.freedesktop.Notifications");
const QString kPath = QStringLiteral("/org/freedesktop/Notifications");
const QString kActionKey = QStringLiteral("default-action");

// Hears the server's ActionInvoked for one notification, for the life of the process.
class ActionListener : public QObject
{
    Q_OBJECT
public:
    ActionListener(std::function<void()> onAction, QObject *parent)
        : QObject(parent)
        , m_onAction(std::move(onAction))
    {}

    uint id = 0;

public Q_SLOTS:
    void actionInvoked(uint notification, const QString &key)
    {
        if (id != 0 && notification == id && (key == kActionKey || key == u"default"))
            m_onAction();
    }

private:
    std::function<void()> m_onAction;
};

} // namespace

void showDesktopNotification(const QString &summary, const QString &body, const QString &actionLabel,
                             std::function<void()> onAction)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return;
    QDBusMessage notify = QDBusMessage::createMethodCall(kService, kPath, kService, QStringLiteral("Notify"));
    QStringList actions;
    if (!actionLabel.isEmpty())
        actions = QStringList{kActionKey, actionLabel};
    // app name, replaces id, icon, summary, body, actions, hints, expire timeout (-1: the server's)
    notify << QStringLiteral("Quillvox") << 0u << QStringLiteral("quillvox") << summary << body << actions
           << QVariantMap() << -1;
    if (actions.isEmpty() || !onAction) {
        bus.send(notify);
        return;
    }
    auto *listener = new ActionListener(std::move(onAction), QCoreApplication::instance());
    bus.connect(kService, kPath, kService, QStringLiteral("ActionInvoked"), listener,
                SLOT(actionInvoked(uint, QString)));
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(notify), listener);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, listener, [listener, watcher] {
        const QDBusPendingReply<uint> reply = *watcher;
        if (reply.isValid())
            listener->id = reply.value();
        watcher->deleteLater();
    });
}

#include "DesktopNotification.moc"
