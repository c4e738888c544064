// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

struct xcb_connection_t;

// A display connection of our own, beside Qt's, for selection traffic that must not wait for Qt's event
// loop: events here are read only by whoever holds this object. Comes with one unmapped window that
// listens for property changes.
class X11Connection
{
public:
    struct EventDeleter
    {
        void operator()(void *event) const;
    };
    // One event as libxcb hands it out: an xcb_generic_event_t.
    using Event = std::unique_ptr<void, EventDeleter>;
    using Clock = std::chrono::steady_clock;

    X11Connection();
    ~X11Connection();
    X11Connection(const X11Connection &) = delete;
    X11Connection &operator=(const X11Connection &) = delete;

    bool isValid() const;
    xcb_connection_t *connection() const { return m_connection; }
    quint32 window() const { return m_window; }
    quint32 root() const { return m_root; }
    int fileDescriptor() const;

    quint32 atom(const char *name);
    QByteArray atomName(quint32 atom);

    // The next event that `matches`, dropping the others; nothing at the deadline or when the
    // connection breaks.
    Event waitForEvent(const std::function<bool(const void *event)> &matches, Clock::time_point deadline);
    // The next event, if one is already queued or arrives within `timeout`.
    Event nextEvent(std::chrono::milliseconds timeout);
    // Every request so far has been processed by the server.
    void sync();
    // Server time now, from a property change on our window.
    std::optional<quint32> serverTime(Clock::time_point deadline);

private:
    xcb_connection_t *m_connection = nullptr;
    quint32 m_window = 0;
    quint32 m_root = 0;
};
