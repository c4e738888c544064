// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/dbus/PortalGlobalShortcuts.h"

#include "core/Logging.h"
#include "platform/dbus/PortalRequest.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>

QDBusArgument &operator<<(QDBusArgument &argument, const PortalShortcutEntry &entry)
{
    argument.beginStructure();
    argument << entry.id << entry.properties;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, PortalShortcutEntry &entry)
{
    argument.beginStructure();
    argument >> entry.id >> entry.properties;
    argument.endStructure();
    return argument;
}

namespace {

using PortalRequest::kRequestInterface;
using PortalRequest::kSessionInterface;

ActionShortcuts::Assignments assignmentsFrom(const QVariant &shortcuts)
{
    QList<PortalShortcutEntry> list;
    if (shortcuts.metaType() == QMetaType::fromType<QDBusArgument>()) {
        const QDBusArgument argument = shortcuts.value<QDBusArgument>();
        if (argument.currentSignature() == QLatin1String("a(sa{sv})"))
            argument >> list;
    }
    ActionShortcuts::Assignments assignments;
    for (const PortalShortcutEntry &shortcut : std::as_const(list)) {
        const QString trigger = shortcut.properties.value(QStringLiteral("trigger_description")).toString();
        if (!trigger.isEmpty())
            assignments.insert(shortcut.id, trigger);
    }
    return assignments;
}

// The session handle arrives as a string from current portals and as an object path from early ones.
QDBusObjectPath pathFrom(const QVariant &value)
{
    if (value.metaType() == QMetaType::fromType<QDBusObjectPath>())
        return value.value<QDBusObjectPath>();
    const QString path = value.toString();
    return path.startsWith(u'/') ? QDBusObjectPath(path) : QDBusObjectPath();
}

} // namespace

PortalGlobalShortcuts::PortalGlobalShortcuts(QDBusConnection bus, QObject *parent)
    : QObject(parent)
    , m_bus(std::move(bus))
    , m_watcher(new QDBusServiceWatcher(QString::fromLatin1(kService), m_bus,
                                        QDBusServiceWatcher::WatchForOwnerChange, this))
{
    registerTypes();
    connect(m_watcher, &QDBusServiceWatcher::serviceOwnerChanged, this,
            [this](const QString &, const QString &oldOwner, const QString &newOwner) {
                if (!oldOwner.isEmpty())
                    portalVanished();
                if (!newOwner.isEmpty() && m_session.path().isEmpty() && !m_creating &&
                    !m_shortcuts.isEmpty())
                    createSession();
            });
    m_bus.connect(QString::fromLatin1(kService), QString::fromLatin1(kPath), QString::fromLatin1(kInterface),
                  QStringLiteral("Activated"), this,
                  SLOT(onActivated(QDBusObjectPath, QString, qulonglong, QVariantMap)));
    m_bus.connect(QString::fromLatin1(kService), QString::fromLatin1(kPath), QString::fromLatin1(kInterface),
                  QStringLiteral("ShortcutsChanged"), this, SLOT(onShortcutsChanged(QDBusMessage)));
}

void PortalGlobalShortcuts::registerTypes()
{
    static const bool registered = [] {
        qDBusRegisterMetaType<PortalShortcutEntry>();
        qDBusRegisterMetaType<QList<PortalShortcutEntry>>();
        return true;
    }();
    Q_UNUSED(registered);
}

PortalGlobalShortcuts::~PortalGlobalShortcuts()
{
    if (!m_session.path().isEmpty()) {
        PortalRequest::closeSession(m_bus, m_session.path());
    }
}

bool PortalGlobalShortcuts::isAvailable(QDBusConnection bus, int timeoutMs)
{
    return PortalRequest::property(bus, QString::fromLatin1(kInterface), QStringLiteral("version"),
                                   timeoutMs) >= 1;
}

void PortalGlobalShortcuts::bind(const QList<Shortcut> &shortcuts)
{
    m_shortcuts = shortcuts;
    if (m_session.path().isEmpty()) {
        if (!m_creating)
            createSession();
        return;
    }
    if (!m_pendingRequest.isEmpty()) {
        m_bindPending = true;
        return;
    }
    sendBind();
}

void PortalGlobalShortcuts::setAssignmentsHandler(std::function<void(const Assignments &)> handler)
{
    m_assignmentsHandler = std::move(handler);
}

void PortalGlobalShortcuts::setActivationHandler(std::function<void(const QString &)> handler)
{
    m_activationHandler = std::move(handler);
}

void PortalGlobalShortcuts::createSession()
{
    const QString token = QStringLiteral("quillvox_session%1").arg(++m_tokenCounter);
    m_creating =
        request(QStringLiteral("CreateSession"), {}, {{QStringLiteral("session_handle_token"), token}},
                SLOT(onCreateSessionResponse(uint, QVariantMap)));
}

void PortalGlobalShortcuts::sendBind()
{
    m_bindPending = false;
    QList<PortalShortcutEntry> list;
    for (const Shortcut &shortcut : std::as_const(m_shortcuts)) {
        QVariantMap properties{{QStringLiteral("description"), shortcut.description}};
        if (!shortcut.preferredTrigger.isEmpty())
            properties.insert(QStringLiteral("preferred_trigger"), shortcut.preferredTrigger);
        list.append({shortcut.id, properties});
    }
    request(QStringLiteral("BindShortcuts"),
            {QVariant::fromValue(m_session), QVariant::fromValue(list), QString()}, {},
            SLOT(onBindResponse(uint, QVariantMap)));
}

bool PortalGlobalShortcuts::request(const QString &method, QVariantList arguments, QVariantMap options,
                                    const char *slot)
{
    // The answer is a Response signal on a request object whose path follows from our bus name and the
    // token, so we listen there before asking: a fast portal could answer before the call returns.
    const QString token = QStringLiteral("quillvox%1").arg(++m_tokenCounter);
    options.insert(QStringLiteral("handle_token"), token);
    const QString path = PortalRequest::path(m_bus, token);
    m_bus.connect(QString::fromLatin1(kService), path, QString::fromLatin1(kRequestInterface),
                  QStringLiteral("Response"), this, slot);
    m_pendingRequest = path;

    QDBusMessage call = QDBusMessage::createMethodCall(
        QString::fromLatin1(kService), QString::fromLatin1(kPath), QString::fromLatin1(kInterface), method);
    arguments.append(options);
    call.setArguments(arguments);
    auto *watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, watcher, path, slot, method] {
        watcher->deleteLater();
        const QDBusPendingReply<QDBusObjectPath> reply = *watcher;
        if (m_pendingRequest != path)
            return;
        if (reply.isError()) {
            qCWarning(lcShortcuts).noquote() << "the desktop portal did not take" << method
                                             << "for the shortcuts:" << reply.error().message();
            m_bus.disconnect(QString::fromLatin1(kService), path, QString::fromLatin1(kRequestInterface),
                             QStringLiteral("Response"), this, slot);
            m_pendingRequest.clear();
            m_creating = false;
            return;
        }
        // Portals before version 0.9 chose the request path themselves.
        if (const QString actual = reply.value().path(); actual != path) {
            m_bus.disconnect(QString::fromLatin1(kService), path, QString::fromLatin1(kRequestInterface),
                             QStringLiteral("Response"), this, slot);
            m_bus.connect(QString::fromLatin1(kService), actual, QString::fromLatin1(kRequestInterface),
                          QStringLiteral("Response"), this, slot);
            m_pendingRequest = actual;
        }
    });
    return true;
}

void PortalGlobalShortcuts::onCreateSessionResponse(uint response, const QVariantMap &results)
{
    m_bus.disconnect(QString::fromLatin1(kService), m_pendingRequest, QString::fromLatin1(kRequestInterface),
                     QStringLiteral("Response"), this, SLOT(onCreateSessionResponse(uint, QVariantMap)));
    m_pendingRequest.clear();
    m_creating = false;
    const QDBusObjectPath session = pathFrom(results.value(QStringLiteral("session_handle")));
    if (response != 0 || session.path().isEmpty()) {
        qCWarning(lcShortcuts) << "the desktop portal gave no shortcuts session; response" << response;
        publish({});
        return;
    }
    m_session = session;
    if (!m_shortcuts.isEmpty())
        sendBind();
}

void PortalGlobalShortcuts::onBindResponse(uint response, const QVariantMap &results)
{
    m_bus.disconnect(QString::fromLatin1(kService), m_pendingRequest, QString::fromLatin1(kRequestInterface),
                     QStringLiteral("Response"), this, SLOT(onBindResponse(uint, QVariantMap)));
    m_pendingRequest.clear();
    if (response != 0)
        qCWarning(lcShortcuts) << "the desktop portal did not bind the shortcuts; response" << response;
    publish(response == 0 ? assignmentsFrom(results.value(QStringLiteral("shortcuts"))) : Assignments());
    if (m_bindPending)
        sendBind();
}

void PortalGlobalShortcuts::onActivated(const QDBusObjectPath &session, const QString &id, qulonglong,
                                        const QVariantMap &)
{
    if (session != m_session || m_session.path().isEmpty())
        return;
    if (m_activationHandler)
        m_activationHandler(id);
}

void PortalGlobalShortcuts::onShortcutsChanged(const QDBusMessage &message)
{
    const QVariantList arguments = message.arguments();
    if (arguments.size() < 2 || pathFrom(arguments.at(0)) != m_session || m_session.path().isEmpty())
        return;
    publish(assignmentsFrom(arguments.at(1)));
}

void PortalGlobalShortcuts::portalVanished()
{
    if (!m_pendingRequest.isEmpty()) {
        // Whichever request it was, its answer will not come.
        m_bus.disconnect(QString::fromLatin1(kService), m_pendingRequest,
                         QString::fromLatin1(kRequestInterface), QStringLiteral("Response"), this,
                         SLOT(onCreateSessionResponse(uint, QVariantMap)));
        m_bus.disconnect(QString::fromLatin1(kService), m_pendingRequest,
                         QString::fromLatin1(kRequestInterface), QStringLiteral("Response"), this,
                         SLOT(onBindResponse(uint, QVariantMap)));
        m_pendingRequest.clear();
    }
    m_session = QDBusObjectPath();
    m_creating = false;
    m_bindPending = false;
    publish({});
    // The portal is started on demand: asking for a session again brings it back if it crashed.
    if (!m_shortcuts.isEmpty())
        createSession();
}

void PortalGlobalShortcuts::publish(const Assignments &assignments)
{
    if (assignments == m_assignments)
        return;
    m_assignments = assignments;
    if (m_assignmentsHandler)
        m_assignmentsHandler(m_assignments);
}
