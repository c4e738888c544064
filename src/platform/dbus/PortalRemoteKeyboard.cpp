// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/dbus/PortalRemoteKeyboard.h"

#include "core/Logging.h"
#include "platform/dbus/PortalRequest.h"

#include <QDBusMessage>
#include <QScopeGuard>

#include <linux/input-event-codes.h>

namespace {

// The portal's device types: 1 keyboard, 2 pointer, 4 touchscreen.
constexpr uint kKeyboard = 1;
// Answers to requests that need no user are immediate; a few seconds covers a busy desktop.
constexpr std::chrono::seconds kRequestTimeout{5};

QString interfaceName()
{
    return QString::fromLatin1(PortalRemoteKeyboard::kInterface);
}

} // namespace

PortalRemoteKeyboard::PortalRemoteKeyboard(QDBusConnection bus, std::chrono::milliseconds consentTimeout)
    : m_bus(std::move(bus))
    , m_consentTimeout(consentTimeout)
{}

PortalRemoteKeyboard::~PortalRemoteKeyboard()
{
    if (!m_session.path().isEmpty())
        PortalRequest::closeSession(m_bus, m_session.path());
}

bool PortalRemoteKeyboard::isAvailable(QDBusConnection bus, int timeoutMs)
{
    return PortalRequest::property(bus, interfaceName(), QStringLiteral("version"), timeoutMs) >= 1 &&
           (PortalRequest::property(bus, interfaceName(), QStringLiteral("AvailableDeviceTypes"), timeoutMs) &
            kKeyboard);
}

KeyboardInjector::Availability PortalRemoteKeyboard::availability()
{
    return m_bus.isConnected() ? Availability::Available : Availability::NoDisplay;
}

QList<quint32> PortalRemoteKeyboard::heldKeys()
{
    return {KEY_LEFTCTRL,  KEY_RIGHTCTRL,  KEY_LEFTALT,  KEY_RIGHTALT,
            KEY_LEFTSHIFT, KEY_RIGHTSHIFT, KEY_LEFTMETA, KEY_RIGHTMETA};
}

bool PortalRemoteKeyboard::ensureSession()
{
    if (!m_session.path().isEmpty())
        return true;
    // A shortcut pressed again while the user is still being asked copies nothing.
    if (m_starting)
        return false;
    m_starting = true;
    const auto finish = qScopeGuard([this] { m_starting = false; });

    // A fresh token each time: a refused session may not be gone yet when the user is asked again.
    static int sessions = 0;
    const std::optional<PortalRequest::Answer> created = PortalRequest::callAndWait(
        m_bus, interfaceName(), QStringLiteral("CreateSession"), {},
        {{QStringLiteral("session_handle_token"), QStringLiteral("quillvox_keys%1").arg(++sessions)}},
        kRequestTimeout);
    const QString handle =
        created ? created->results.value(QStringLiteral("session_handle")).toString() : QString();
    if (!created || created->response != 0 || !handle.startsWith(u'/')) {
        qCWarning(lcCapture) << "the desktop portal gave no remote-desktop session";
        return false;
    }
    const QDBusObjectPath session(handle);
    const auto close = [&] { PortalRequest::closeSession(m_bus, session.path()); };
    const std::optional<PortalRequest::Answer> selected = PortalRequest::callAndWait(
        m_bus, interfaceName(), QStringLiteral("SelectDevices"), {QVariant::fromValue(session)},
        {{QStringLiteral("types"), kKeyboard}}, kRequestTimeout);
    if (!selected || selected->response != 0) {
        qCWarning(lcCapture) << "the desktop portal did not offer its keyboard";
        close();
        return false;
    }
    // Here the desktop asks the user.
    const std::optional<PortalRequest::Answer> started =
        PortalRequest::callAndWait(m_bus, interfaceName(), QStringLiteral("Start"),
                                   {QVariant::fromValue(session), QString()}, {}, m_consentTimeout);
    if (!started || started->response != 0 ||
        !(started->results.value(QStringLiteral("devices")).toUInt() & kKeyboard)) {
        qCWarning(lcCapture) << "the desktop did not let Quillvox press keys to copy the selection";
        close();
        return false;
    }
    m_session = session;
    return true;
}

void PortalRemoteKeyboard::sendKeys(const QList<KeyEvent> &events)
{
    if (!ensureSession())
        return;
    for (const KeyEvent &event : events) {
        QDBusMessage call = QDBusMessage::createMethodCall(
            QString::fromLatin1(PortalRequest::kService), QString::fromLatin1(PortalRequest::kPath),
            interfaceName(), QStringLiteral("NotifyKeyboardKeycode"));
        call << QVariant::fromValue(m_session) << QVariantMap() << int(event.keyCode)
             << uint(event.pressed ? 1 : 0);
        // One at a time and answered, so that they arrive in order and have arrived when we return.
        const QDBusMessage reply = m_bus.call(call, QDBus::Block, 2000);
        if (reply.type() == QDBusMessage::ErrorMessage) {
            // The desktop ended the session (the user revoked it): ask again next time.
            qCWarning(lcCapture).noquote() << "the desktop portal took no key:" << reply.errorMessage();
            m_session = QDBusObjectPath();
            return;
        }
    }
}
