// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/x11/X11KeyboardInjector.h"

#include "platform/x11/X11Session.h"

#include <xcb/xcb.h>
#include <xcb/xtest.h>

#include <cstdlib>
#include <memory>

namespace {

constexpr quint32 kEvdevToXKeyCode = 8;

struct FreeDeleter
{
    void operator()(void *p) const { std::free(p); }
};

void sync(xcb_connection_t *c)
{
    // A round trip: every request before it has been processed by the server when the reply arrives.
    std::unique_ptr<xcb_get_input_focus_reply_t, FreeDeleter> reply(
        xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
}

} // namespace

KeyboardInjector::Availability X11KeyboardInjector::availability()
{
    if (X11Session::isWaylandSession())
        return Availability::WaylandSession;
    xcb_connection_t *c = X11Session::connection();
    if (!c)
        return Availability::NoDisplay;
    const xcb_query_extension_reply_t *xtest = xcb_get_extension_data(c, &xcb_test_id);
    if (!xtest || !xtest->present)
        return Availability::NoXTest;
    return Availability::Available;
}

QList<quint32> X11KeyboardInjector::heldKeys()
{
    QList<quint32> keys;
    xcb_connection_t *c = X11Session::connection();
    if (!c)
        return keys;
    std::unique_ptr<xcb_query_keymap_reply_t, FreeDeleter> keymap(
        xcb_query_keymap_reply(c, xcb_query_keymap(c), nullptr));
    if (!keymap)
        return keys;
    for (quint32 keyCode = kEvdevToXKeyCode; keyCode < 256; ++keyCode) {
        if (keymap->keys[keyCode / 8] & (1u << (keyCode % 8)))
            keys.append(keyCode - kEvdevToXKeyCode);
    }
    return keys;
}

void X11KeyboardInjector::sendKeys(const QList<KeyEvent> &events)
{
    xcb_connection_t *c = X11Session::connection();
    if (!c)
        return;
    // One write, one round trip: the server runs one client's queued requests back to back, so another
    // client's key events (the tail of the shortcut that started this, a release still on its way) cannot
    // land between our Ctrl and our C and turn the copy into a typed "c".
    for (const KeyEvent &event : events) {
        xcb_test_fake_input(c, event.pressed ? XCB_KEY_PRESS : XCB_KEY_RELEASE,
                            quint8(event.keyCode + kEvdevToXKeyCode), XCB_CURRENT_TIME, XCB_WINDOW_NONE, 0, 0,
                            0);
    }
    sync(c);
}
