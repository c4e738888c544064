// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/x11/X11Session.h"

#include <QGuiApplication>

#include <xcb/xcb.h>

xcb_connection_t *X11Session::connection()
{
    const auto *app = qGuiApp;
    if (!app)
        return nullptr;
    const auto *x11 = app->nativeInterface<QNativeInterface::QX11Application>();
    return x11 ? x11->connection() : nullptr;
}

quint32 X11Session::rootWindow()
{
    xcb_connection_t *c = connection();
    if (!c)
        return XCB_WINDOW_NONE;
    // Qt uses the default screen; so do we.
    const xcb_setup_t *setup = xcb_get_setup(c);
    const xcb_screen_iterator_t it = xcb_setup_roots_iterator(setup);
    return it.rem ? it.data->root : xcb_window_t(XCB_WINDOW_NONE);
}

bool X11Session::isWaylandSession()
{
    return qEnvironmentVariable("XDG_SESSION_TYPE") == u"wayland" ||
           !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
}

bool X11Session::isOwnWindow(quint32 window)
{
    xcb_connection_t *c = connection();
    if (!c || window == XCB_WINDOW_NONE)
        return false;
    // Every resource a client creates carries the client's id base in the bits outside its id mask.
    const xcb_setup_t *setup = xcb_get_setup(c);
    return (window & ~setup->resource_id_mask) == setup->resource_id_base;
}

QByteArray X11Session::displayName()
{
    // Qt takes the display from -display or $DISPLAY; the former is not worth supporting here.
    return qgetenv("DISPLAY");
}
