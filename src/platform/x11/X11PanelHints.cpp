// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/x11/X11PanelHints.h"

#include "platform/x11/X11Session.h"

#include <QWindow>

#include <xcb/xcb.h>

#include <cstdlib>
#include <memory>
#include <string>

namespace {

constexpr quint32 kAllDesktops = 0xFFFFFFFF;
constexpr quint32 kNetWmStateAdd = 1;
constexpr quint32 kSourceApplication = 1;

xcb_atom_t internAtom(xcb_connection_t *c, const char *name)
{
    const xcb_intern_atom_cookie_t cookie = xcb_intern_atom(c, 0, quint16(strlen(name)), name);
    std::unique_ptr<xcb_intern_atom_reply_t, decltype(&std::free)> reply(
        xcb_intern_atom_reply(c, cookie, nullptr), &std::free);
    return reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
}

void sendToRoot(xcb_connection_t *c, xcb_window_t window, xcb_atom_t type,
                std::initializer_list<quint32> data)
{
    xcb_client_message_event_t event{};
    event.response_type = XCB_CLIENT_MESSAGE;
    event.format = 32;
    event.window = window;
    event.type = type;
    int i = 0;
    for (quint32 value : data)
        event.data.data32[i++] = value;
    xcb_send_event(c, 0, X11Session::rootWindow(),
                   XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY,
                   reinterpret_cast<const char *>(&event));
}

} // namespace

void X11PanelHints::apply(QWindow &window)
{
    xcb_connection_t *c = X11Session::connection();
    if (!c)
        return;
    const auto id = xcb_window_t(window.winId());
    const xcb_atom_t netWmState = internAtom(c, "_NET_WM_STATE");
    const xcb_atom_t desktop = internAtom(c, "_NET_WM_DESKTOP");
    const xcb_atom_t states[] = {internAtom(c, "_NET_WM_STATE_STICKY"), internAtom(c, "_NET_WM_STATE_ABOVE"),
                                 internAtom(c, "_NET_WM_STATE_SKIP_TASKBAR"),
                                 internAtom(c, "_NET_WM_STATE_SKIP_PAGER")};
    if (!window.isVisible()) {
        // An unmapped window tells the window manager through its properties, read when it is mapped.
        xcb_change_property(c, XCB_PROP_MODE_APPEND, id, netWmState, XCB_ATOM_ATOM, 32, std::size(states),
                            states);
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, id, desktop, XCB_ATOM_CARDINAL, 32, 1, &kAllDesktops);
    } else {
        // A mapped one only through messages to the root window.
        for (std::size_t i = 0; i < std::size(states); i += 2)
            sendToRoot(c, id, netWmState, {kNetWmStateAdd, states[i], states[i + 1], kSourceApplication, 0});
        sendToRoot(c, id, desktop, {kAllDesktops, kSourceApplication, 0, 0, 0});
    }
    xcb_flush(c);
}

bool X11PanelHints::hasCompositingManager() const
{
    xcb_connection_t *c = X11Session::connection();
    if (!c)
        return true; // not X11: the platform composites
    const std::string name = "_NET_WM_CM_S" + std::to_string(0);
    const xcb_atom_t selection = internAtom(c, name.c_str());
    std::unique_ptr<xcb_get_selection_owner_reply_t, decltype(&std::free)> reply(
        xcb_get_selection_owner_reply(c, xcb_get_selection_owner(c, selection), nullptr), &std::free);
    return reply && reply->owner != XCB_NONE;
}
