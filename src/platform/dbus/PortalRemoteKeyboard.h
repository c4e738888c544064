// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/KeyboardInjector.h"

#include <QDBusConnection>
#include <QDBusObjectPath>

#include <chrono>

// Key events through the desktop portal's RemoteDesktop interface: on KDE Plasma the one way a Wayland
// application may press keys for another. The first use opens a remote-desktop session with the
// keyboard only, which the desktop asks the user to allow; the session then lasts as long as we run, so
// the question comes at most once. A refusal sends nothing and the next use asks again.
// GUI thread only; waiting for the user's answer runs the thread's events, user input excepted.
class PortalRemoteKeyboard final : public KeyboardInjector
{
public:
    static constexpr const char *kInterface = "org.freedesktop.portal.RemoteDesktop";

    explicit PortalRemoteKeyboard(QDBusConnection bus = QDBusConnection::sessionBus(),
                                  std::chrono::milliseconds consentTimeout = std::chrono::minutes(1));
    ~PortalRemoteKeyboard() override;

    // Whether the session's portal offers a remote keyboard; asks the portal (starting it if need be)
    // and waits at most `timeoutMs`.
    static bool isAvailable(QDBusConnection bus = QDBusConnection::sessionBus(), int timeoutMs = 2000);

    Availability availability() override;
    // The portal tells nothing of the keyboard's state: every modifier a shortcut may hold, as releasing
    // a key that is up changes nothing.
    QList<quint32> heldKeys() override;
    void sendKeys(const QList<KeyEvent> &events) override;

    // The portal's session object, empty until the user has allowed one.
    QString sessionHandle() const { return m_session.path(); }

private:
    bool ensureSession();

    QDBusConnection m_bus;
    std::chrono::milliseconds m_consentTimeout;
    QDBusObjectPath m_session;
    bool m_starting = false;
};
