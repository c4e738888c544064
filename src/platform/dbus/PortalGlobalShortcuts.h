// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/ActionShortcuts.h"
#include "platform/dbus/PortalRequest.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QObject>
#include <QVariantMap>

class QDBusArgument;
class QDBusServiceWatcher;

// One entry of the portal's a(sa{sv}) shortcut lists: the id, then "description" and
// "preferred_trigger" going out, "description" and "trigger_description" coming back.
struct PortalShortcutEntry
{
    QString id;
    QVariantMap properties;
};
Q_DECLARE_METATYPE(PortalShortcutEntry)
QDBusArgument &operator<<(QDBusArgument &argument, const PortalShortcutEntry &entry);
const QDBusArgument &operator>>(const QDBusArgument &argument, PortalShortcutEntry &entry);

// Global shortcuts through the desktop portal's GlobalShortcuts interface (KDE Plasma 5.27, GNOME 48
// and later): one session per portal instance, every bind() sent as BindShortcuts on it, presses
// arriving as Activated. When the portal goes away the assignments empty; when it comes back a new
// session is created and the last set bound again. GUI thread only.
class PortalGlobalShortcuts final : public QObject, public ActionShortcuts
{
    Q_OBJECT

public:
    static constexpr const char *kService = PortalRequest::kService;
    static constexpr const char *kPath = PortalRequest::kPath;
    static constexpr const char *kInterface = "org.freedesktop.portal.GlobalShortcuts";

    explicit PortalGlobalShortcuts(QDBusConnection bus = QDBusConnection::sessionBus(),
                                   QObject *parent = nullptr);
    ~PortalGlobalShortcuts() override;

    // Whether the session's portal offers global shortcuts; asks the portal (starting it if need be)
    // and waits at most `timeoutMs`.
    static bool isAvailable(QDBusConnection bus = QDBusConnection::sessionBus(), int timeoutMs = 2000);
    // Makes PortalShortcutEntry and its lists known to QtDBus; done by the constructor too.
    static void registerTypes();

    void bind(const QList<Shortcut> &shortcuts) override;
    void setAssignmentsHandler(std::function<void(const Assignments &)> handler) override;
    void setActivationHandler(std::function<void(const QString &id)> handler) override;

    // The portal's session object, empty until it has answered CreateSession.
    QString sessionHandle() const { return m_session.path(); }

private Q_SLOTS:
    void onCreateSessionResponse(uint response, const QVariantMap &results);
    void onBindResponse(uint response, const QVariantMap &results);
    void onActivated(const QDBusObjectPath &session, const QString &id, qulonglong timestamp,
                     const QVariantMap &options);
    void onShortcutsChanged(const QDBusMessage &message);

private:
    void createSession();
    void sendBind();
    void portalVanished();
    // Sends a portal request whose answer comes as a Response signal on its own object; `slot` receives
    // it. False when the call could not be made.
    bool request(const QString &method, QVariantList arguments, QVariantMap options, const char *slot);
    void publish(const Assignments &assignments);

    QDBusConnection m_bus;
    QDBusServiceWatcher *m_watcher;
    QDBusObjectPath m_session;
    QString m_pendingRequest;
    bool m_creating = false;
    bool m_bindPending = false;
    QList<Shortcut> m_shortcuts;
    Assignments m_assignments;
    std::function<void(const Assignments &)> m_assignmentsHandler;
    std::function<void(const QString &)> m_activationHandler;
    int m_tokenCounter = 0;
};
