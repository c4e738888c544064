// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/x11/X11Activation.h"

#include "platform/x11/X11Session.h"

#include <QWindow>

#include <xcb/xcb.h>

#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr quint32 kSourceApplication = 1;

} // namespace

std::optional<quint32> X11Activation::startupTime(const QByteArray &startupId)
{
    const qsizetype marker = startupId.lastIndexOf("_TIME");
    if (marker < 0)
        return std::nullopt;
    bool ok = false;
    const quint32 time = startupId.mid(marker + 5).toUInt(&ok);
    if (!ok || time == 0)
        return std::nullopt;
    return time;
}

bool X11Activation::activate(QWindow &window, const QByteArray &startupId)
{
    xcb_connection_t *c = X11Session::connection();
    const std::optional<quint32> time = startupTime(startupId);
    if (!c || !time)
        return false;
    const char *name = "_NET_ACTIVE_WINDOW";
    std::unique_ptr<xcb_intern_atom_reply_t, decltype(&std::free)> atom(
        xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, quint16(std::strlen(name)), name), nullptr),
        &std::free);
    if (!atom)
        return false;
    xcb_client_message_event_t event{};
    event.response_type = XCB_CLIENT_MESSAGE;
    event.format = 32;
    event.window = xcb_window_t(window.winId());
    event.type = atom->atom;
    event.data.data32[0] = kSourceApplication;
    event.data.data32[1] = *time;
    xcb_send_event(c, 0, X11Session::rootWindow(),
                   XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY,
                   reinterpret_cast<const char *>(&event));
    xcb_flush(c);
    return true;
}
