// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QtGlobal>

struct xcb_connection_t;

// What the X11 backends share: Qt's own display connection and the facts about the session.
class X11Session
{
public:
    // Qt's connection; null unless the application runs on the xcb platform.
    static xcb_connection_t *connection();
    static quint32 rootWindow();
    // A Wayland session, where synthetic X11 input reaches X11 clients only, even when this process
    // itself talks X11 (XWayland).
    static bool isWaylandSession();
    // The window was created by this process's Qt connection.
    static bool isOwnWindow(quint32 window);
    // The display Qt is connected to, for further connections of our own.
    static QByteArray displayName();
};
