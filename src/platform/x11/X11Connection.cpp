// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/x11/X11Connection.h"

#include "platform/x11/X11Session.h"

#include <xcb/xcb.h>

#include <poll.h>

#include <cstdlib>
#include <cstring>

namespace {

struct FreeDeleter
{
    void operator()(void *p) const { std::free(p); }
};
template<typename T> using Reply = std::unique_ptr<T, FreeDeleter>;

} // namespace

void X11Connection::EventDeleter::operator()(void *event) const
{
    std::free(event);
}

X11Connection::X11Connection()
{
    const QByteArray display = X11Session::displayName();
    m_connection = xcb_connect(display.isEmpty() ? nullptr : display.constData(), nullptr);
    if (xcb_connection_has_error(m_connection))
        return;
    const xcb_screen_iterator_t screens = xcb_setup_roots_iterator(xcb_get_setup(m_connection));
    if (!screens.rem)
        return;
    m_root = screens.data->root;
    m_window = xcb_generate_id(m_connection);
    const quint32 eventMask = XCB_EVENT_MASK_PROPERTY_CHANGE;
    xcb_create_window(m_connection, XCB_COPY_FROM_PARENT, m_window, m_root, -1, -1, 1, 1, 0,
                      XCB_WINDOW_CLASS_INPUT_ONLY, XCB_COPY_FROM_PARENT, XCB_CW_EVENT_MASK, &eventMask);
    const char title[] = "Quillvox selection";
    xcb_change_property(m_connection, XCB_PROP_MODE_REPLACE, m_window, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8,
                        sizeof title - 1, title);
    xcb_flush(m_connection);
}

X11Connection::~X11Connection()
{
    if (m_window)
        xcb_destroy_window(m_connection, m_window);
    xcb_disconnect(m_connection);
}

bool X11Connection::isValid() const
{
    return m_connection && !xcb_connection_has_error(m_connection) && m_window;
}

int X11Connection::fileDescriptor() const
{
    return xcb_get_file_descriptor(m_connection);
}

quint32 X11Connection::atom(const char *name)
{
    Reply<xcb_intern_atom_reply_t> reply(xcb_intern_atom_reply(
        m_connection, xcb_intern_atom(m_connection, 0, quint16(std::strlen(name)), name), nullptr));
    return reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
}

QByteArray X11Connection::atomName(quint32 atom)
{
    Reply<xcb_get_atom_name_reply_t> reply(
        xcb_get_atom_name_reply(m_connection, xcb_get_atom_name(m_connection, atom), nullptr));
    if (!reply)
        return {};
    return QByteArray(xcb_get_atom_name_name(reply.get()), xcb_get_atom_name_name_length(reply.get()));
}

X11Connection::Event X11Connection::nextEvent(std::chrono::milliseconds timeout)
{
    if (Event event{xcb_poll_for_event(m_connection)})
        return event;
    if (xcb_connection_has_error(m_connection))
        return {};
    pollfd fd{xcb_get_file_descriptor(m_connection), POLLIN, 0};
    if (::poll(&fd, 1, int(timeout.count())) <= 0)
        return {};
    return Event{xcb_poll_for_event(m_connection)};
}

X11Connection::Event X11Connection::waitForEvent(const std::function<bool(const void *)> &matches,
                                                 Clock::time_point deadline)
{
    for (;;) {
        const auto remaining = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (remaining.count() <= 0 || xcb_connection_has_error(m_connection))
            return {};
        Event event = nextEvent(remaining);
        if (event && matches(event.get()))
            return event;
    }
}

void X11Connection::sync()
{
    Reply<xcb_get_input_focus_reply_t> reply(
        xcb_get_input_focus_reply(m_connection, xcb_get_input_focus(m_connection), nullptr));
}

std::optional<quint32> X11Connection::serverTime(Clock::time_point deadline)
{
    const xcb_atom_t property = atom("QUILLVOX_TIMESTAMP");
    xcb_change_property(m_connection, XCB_PROP_MODE_APPEND, m_window, property, XCB_ATOM_INTEGER, 32, 0,
                        nullptr);
    xcb_flush(m_connection);
    const quint32 window = m_window;
    Event event = waitForEvent(
        [window, property](const void *e) {
            if ((static_cast<const xcb_generic_event_t *>(e)->response_type & 0x7f) != XCB_PROPERTY_NOTIFY)
                return false;
            const auto *notify = static_cast<const xcb_property_notify_event_t *>(e);
            return notify->window == window && notify->atom == property;
        },
        deadline);
    if (!event)
        return std::nullopt;
    return static_cast<const xcb_property_notify_event_t *>(event.get())->time;
}
