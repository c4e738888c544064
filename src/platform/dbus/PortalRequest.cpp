// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/dbus/PortalRequest.h"

#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVariant>
#include <QEventLoop>
#include <QTimer>

namespace {

class ResponseWaiter final : public QObject
{
    Q_OBJECT

public:
    QEventLoop loop;
    std::optional<PortalRequest::Answer> answer;

public Q_SLOTS:
    void onResponse(uint response, const QVariantMap &results)
    {
        answer = PortalRequest::Answer{response, results};
        loop.quit();
    }
};

} // namespace

namespace PortalRequest {

QString path(const QDBusConnection &bus, const QString &token)
{
    QString sender = bus.baseService().mid(1);
    sender.replace(u'.', u'_');
    return QStringLiteral("/org/freedesktop/portal/desktop/request/%1/%2").arg(sender, token);
}

std::optional<Answer> callAndWait(const QDBusConnection &bus, const QString &interface, const QString &method,
                                  QVariantList arguments, QVariantMap options,
                                  std::chrono::milliseconds timeout)
{
    static int counter = 0;
    const QString token = QStringLiteral("quillvoxsync%1").arg(++counter);
    options.insert(QStringLiteral("handle_token"), token);
    QDBusConnection connection = bus;
    ResponseWaiter waiter;
    QString requestPath = path(bus, token);
    const auto listen = [&](const QString &at, bool on) {
        if (on)
            connection.connect(QString::fromLatin1(kService), at, QString::fromLatin1(kRequestInterface),
                               QStringLiteral("Response"), &waiter, SLOT(onResponse(uint, QVariantMap)));
        else
            connection.disconnect(QString::fromLatin1(kService), at, QString::fromLatin1(kRequestInterface),
                                  QStringLiteral("Response"), &waiter, SLOT(onResponse(uint, QVariantMap)));
    };
    listen(requestPath, true);

    QDBusMessage call = QDBusMessage::createMethodCall(QString::fromLatin1(kService),
                                                       QString::fromLatin1(kPath), interface, method);
    arguments.append(options);
    call.setArguments(arguments);
    QDBusPendingCallWatcher watcher(connection.asyncCall(call));
    QObject::connect(&watcher, &QDBusPendingCallWatcher::finished, &waiter, [&] {
        const QDBusPendingReply<QDBusObjectPath> reply = watcher;
        if (reply.isError()) {
            waiter.loop.quit();
            return;
        }
        // Portals before version 0.9 chose the request path themselves.
        if (const QString actual = reply.value().path(); actual != requestPath && !waiter.answer) {
            listen(requestPath, false);
            requestPath = actual;
            listen(requestPath, true);
        }
    });
    QTimer::singleShot(timeout, &waiter.loop, &QEventLoop::quit);
    waiter.loop.exec(QEventLoop::ExcludeUserInputEvents);
    listen(requestPath, false);
    return waiter.answer;
}

void closeSession(const QDBusConnection &bus, const QString &session)
{
    QDBusConnection(bus).call(QDBusMessage::createMethodCall(QString::fromLatin1(kService), session,
                                                             QString::fromLatin1(kSessionInterface),
                                                             QStringLiteral("Close")),
                              QDBus::NoBlock);
}

uint property(const QDBusConnection &bus, const QString &interface, const QString &name, int timeoutMs)
{
    QDBusMessage get = QDBusMessage::createMethodCall(
        QString::fromLatin1(kService), QString::fromLatin1(kPath),
        QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    get << interface << name;
    const QDBusMessage reply = QDBusConnection(bus).call(get, QDBus::Block, timeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
        return 0;
    QVariant value = reply.arguments().constFirst();
    if (value.metaType() == QMetaType::fromType<QDBusVariant>())
        value = value.value<QDBusVariant>().variant();
    return value.toUInt();
}

} // namespace PortalRequest

#include "PortalRequest.moc"
