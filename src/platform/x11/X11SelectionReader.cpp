// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/x11/X11SelectionReader.h"

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

quint8 eventType(const void *event)
{
    // The top bit marks events sent by another client.
    return static_cast<const xcb_generic_event_t *>(event)->response_type & 0x7f;
}

} // namespace

X11SelectionReader::X11SelectionReader()
{
    if (!m_connection.isValid())
        return;
    m_property = m_connection.atom("QUILLVOX_SELECTION");
    m_incr = m_connection.atom("INCR");
}

quint32 X11SelectionReader::owner(quint32 selection)
{
    xcb_connection_t *c = m_connection.connection();
    Reply<xcb_get_selection_owner_reply_t> reply(
        xcb_get_selection_owner_reply(c, xcb_get_selection_owner(c, selection), nullptr));
    return reply ? reply->owner : xcb_window_t(XCB_WINDOW_NONE);
}

std::optional<X11SelectionReader::Converted> X11SelectionReader::readProperty(bool deleteAfter)
{
    xcb_connection_t *c = m_connection.connection();
    // One request for the whole value: the length is in 32-bit units and the server sends what there is.
    Reply<xcb_get_property_reply_t> reply(
        xcb_get_property_reply(c,
                               xcb_get_property(c, deleteAfter, m_connection.window(), m_property,
                                                XCB_GET_PROPERTY_TYPE_ANY, 0, 0x1fffffff),
                               nullptr));
    if (!reply || reply->type == XCB_ATOM_NONE)
        return std::nullopt;
    Converted converted;
    converted.type = reply->type;
    converted.format = reply->format;
    converted.data = QByteArray(static_cast<const char *>(xcb_get_property_value(reply.get())),
                                xcb_get_property_value_length(reply.get()));
    return converted;
}

std::optional<X11SelectionReader::Converted>
X11SelectionReader::readIncrementally(std::chrono::milliseconds timeout, bool *timedOut)
{
    std::optional<Converted> whole;
    const quint32 window = m_connection.window();
    const quint32 property = m_property;
    for (;;) {
        X11Connection::Event event = m_connection.waitForEvent(
            [window, property](const void *e) {
                if (eventType(e) != XCB_PROPERTY_NOTIFY)
                    return false;
                const auto *notify = static_cast<const xcb_property_notify_event_t *>(e);
                return notify->window == window && notify->atom == property &&
                       notify->state == XCB_PROPERTY_NEW_VALUE;
            },
            X11Connection::Clock::now() + timeout);
        if (!event) {
            if (timedOut)
                *timedOut = true;
            return std::nullopt;
        }
        const std::optional<Converted> piece = readProperty(true);
        if (!piece)
            return std::nullopt;
        // The closing piece is empty; the others carry the type of the data.
        if (piece->data.isEmpty())
            return whole ? whole : Converted{{}, piece->type, piece->format};
        if (!whole)
            whole = piece;
        else
            whole->data += piece->data;
    }
}

std::optional<X11SelectionReader::Converted> X11SelectionReader::convert(quint32 selection, quint32 target,
                                                                         std::chrono::milliseconds timeout,
                                                                         bool *timedOut)
{
    if (timedOut)
        *timedOut = false;
    if (!isValid())
        return std::nullopt;
    xcb_connection_t *c = m_connection.connection();
    const quint32 window = m_connection.window();
    xcb_delete_property(c, window, m_property);
    xcb_convert_selection(c, window, selection, target, m_property, XCB_CURRENT_TIME);
    xcb_flush(c);

    X11Connection::Event event = m_connection.waitForEvent(
        [window, selection, target](const void *e) {
            if (eventType(e) != XCB_SELECTION_NOTIFY)
                return false;
            const auto *notify = static_cast<const xcb_selection_notify_event_t *>(e);
            return notify->requestor == window && notify->selection == selection && notify->target == target;
        },
        X11Connection::Clock::now() + timeout);
    if (!event) {
        if (timedOut)
            *timedOut = true;
        return std::nullopt;
    }
    if (static_cast<const xcb_selection_notify_event_t *>(event.get())->property == XCB_ATOM_NONE)
        return std::nullopt;

    std::optional<Converted> converted = readProperty(true);
    if (!converted || converted->type != m_incr)
        return converted;
    // Deleting the INCR property (done by the read) asks the owner for the first piece.
    return readIncrementally(timeout, timedOut);
}

std::optional<QList<quint32>> X11SelectionReader::targets(quint32 selection,
                                                          std::chrono::milliseconds timeout, bool *timedOut)
{
    const std::optional<Converted> converted =
        convert(selection, m_connection.atom("TARGETS"), timeout, timedOut);
    if (!converted || converted->format != 32)
        return std::nullopt;
    QList<quint32> atoms(converted->data.size() / 4);
    std::memcpy(atoms.data(), converted->data.constData(), size_t(atoms.size()) * 4);
    return atoms;
}
