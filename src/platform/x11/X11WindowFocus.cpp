// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/x11/X11WindowFocus.h"

#include "platform/x11/X11Session.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <xcb/xcb.h>

#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

struct FreeDeleter
{
    void operator()(void *p) const { std::free(p); }
};
template<typename T> using Reply = std::unique_ptr<T, FreeDeleter>;

// Bounds the walk up the tree against a broken hierarchy.
constexpr int kMaxDepth = 32;

xcb_atom_t internAtom(xcb_connection_t *c, const char *name)
{
    Reply<xcb_intern_atom_reply_t> reply(
        xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, quint16(std::strlen(name)), name), nullptr));
    return reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
}

xcb_window_t activeWindow(xcb_connection_t *c, xcb_window_t root)
{
    const xcb_atom_t netActiveWindow = internAtom(c, "_NET_ACTIVE_WINDOW");
    Reply<xcb_get_property_reply_t> reply(xcb_get_property_reply(
        c, xcb_get_property(c, 0, root, netActiveWindow, XCB_ATOM_WINDOW, 0, 1), nullptr));
    if (!reply || reply->type != XCB_ATOM_WINDOW || xcb_get_property_value_length(reply.get()) < 4)
        return XCB_WINDOW_NONE;
    xcb_window_t window = XCB_WINDOW_NONE;
    std::memcpy(&window, xcb_get_property_value(reply.get()), sizeof window);
    return window;
}

std::optional<FocusedWindow> wmClass(xcb_connection_t *c, xcb_window_t window)
{
    Reply<xcb_get_property_reply_t> reply(xcb_get_property_reply(
        c, xcb_get_property(c, 0, window, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, 0, 256), nullptr));
    if (!reply || reply->type != XCB_ATOM_STRING)
        return std::nullopt;
    // Two NUL-terminated strings: instance, then class.
    const QByteArray value(static_cast<const char *>(xcb_get_property_value(reply.get())),
                           xcb_get_property_value_length(reply.get()));
    const QList<QByteArray> parts = value.split('\0');
    FocusedWindow focused;
    focused.instanceName = QString::fromLocal8Bit(parts.value(0));
    focused.className = QString::fromLocal8Bit(parts.value(1));
    return focused;
}

xcb_window_t parentOf(xcb_connection_t *c, xcb_window_t window)
{
    Reply<xcb_query_tree_reply_t> tree(xcb_query_tree_reply(c, xcb_query_tree(c, window), nullptr));
    return tree ? tree->parent : xcb_window_t(XCB_WINDOW_NONE);
}

} // namespace

std::optional<FocusedWindow> X11WindowFocus::focusedWindow()
{
    xcb_connection_t *c = X11Session::connection();
    if (!c)
        return std::nullopt;
    const xcb_window_t root = X11Session::rootWindow();

    Reply<xcb_get_input_focus_reply_t> focus(xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
    xcb_window_t window = focus ? focus->focus : xcb_window_t(XCB_WINDOW_NONE);
    if (window == XCB_WINDOW_NONE || window == XCB_INPUT_FOCUS_POINTER_ROOT || window == root)
        window = activeWindow(c, root);
    if (window == XCB_WINDOW_NONE)
        return std::nullopt;

    xcb_window_t w = window;
    for (int depth = 0; depth < kMaxDepth && w != XCB_WINDOW_NONE && w != root; ++depth, w = parentOf(c, w)) {
        if (std::optional<FocusedWindow> found = wmClass(c, w)) {
            found->isOwnWindow = X11Session::isOwnWindow(w);
            return found;
        }
    }
    // A focus on a window manager's frame: the client is what the window manager calls active.
    if (const xcb_window_t active = activeWindow(c, root); active != XCB_WINDOW_NONE) {
        if (std::optional<FocusedWindow> found = wmClass(c, active)) {
            found->isOwnWindow = X11Session::isOwnWindow(active);
            return found;
        }
    }
    FocusedWindow unnamed;
    unnamed.isOwnWindow = X11Session::isOwnWindow(window);
    return unnamed;
}
