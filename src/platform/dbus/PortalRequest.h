// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QDBusConnection>
#include <QString>
#include <QVariantList>
#include <QVariantMap>

#include <chrono>
#include <optional>

// Desktop portal requests: a method call answered later by a Response signal on a request object whose
// path follows from the caller's bus name and the "handle_token" it chose.
namespace PortalRequest {

inline constexpr const char *kService = "org.freedesktop.portal.Desktop";
inline constexpr const char *kPath = "/org/freedesktop/portal/desktop";
inline constexpr const char *kRequestInterface = "org.freedesktop.portal.Request";
inline constexpr const char *kSessionInterface = "org.freedesktop.portal.Session";

// Where the portal answers a request this connection made with `token`; listen there before asking, as
// a fast portal can answer before the call returns.
QString path(const QDBusConnection &bus, const QString &token);

struct Answer
{
    uint response = 2; // 0 granted, 1 cancelled by the user, 2 ended otherwise
    QVariantMap results;
};

// Makes the request (the options get a fresh "handle_token") and waits for its answer, running this
// thread's events except user input meanwhile; nothing when the portal refused the call or did not
// answer within `timeout`.
std::optional<Answer> callAndWait(const QDBusConnection &bus, const QString &interface, const QString &method,
                                  QVariantList arguments, QVariantMap options,
                                  std::chrono::milliseconds timeout);

// Ends a portal session without waiting for the portal.
void closeSession(const QDBusConnection &bus, const QString &session);

// A whole-number property of a portal interface ("version", "AvailableDeviceTypes"); 0 when the portal is
// missing or lacks the interface. Starts the portal if need be and waits at most `timeoutMs`.
uint property(const QDBusConnection &bus, const QString &interface, const QString &name, int timeoutMs);

} // namespace PortalRequest
