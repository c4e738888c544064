// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/SystemClipboard.h"
#include "platform/x11/X11Connection.h"

#include <QHash>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

// Owns the CLIPBOARD with content of our choosing and serves it, byte for byte under the targets it was
// given, from a thread and a connection of its own: requests are answered while the GUI thread is busy,
// and never depend on how Qt converts between its formats and X targets. On destruction the content is
// handed to a clipboard manager when one runs, as ICCCM asks of an owner that goes away, unless it is
// marked as a password manager's secret.
class X11SelectionOwner
{
public:
    X11SelectionOwner();
    ~X11SelectionOwner();
    X11SelectionOwner(const X11SelectionOwner &) = delete;
    X11SelectionOwner &operator=(const X11SelectionOwner &) = delete;

    bool isValid() const { return m_connection.isValid(); }
    quint32 window() const { return m_connection.window(); }
    // Takes the CLIPBOARD as of `serverTime` (a current server time); false when the server did not make
    // us the owner.
    bool own(const ClipboardContent &content, quint32 serverTime);
    // The content while we are still the owner.
    std::optional<ClipboardContent> content() const;

private:
    struct Entry
    {
        quint32 target;
        QByteArray data;
    };
    struct Ownership
    {
        ClipboardContent content;
        std::vector<Entry> entries;
        quint32 since = 0;
    };
    struct Transfer
    {
        quint32 requestor;
        quint32 property;
        quint32 type;
        QByteArray data;
        qsizetype offset = 0;
        X11Connection::Clock::time_point lastActivity;
    };

    void run();
    void wake();
    // Events are xcb_generic_event_t.
    void handleEvent(const void *event);
    void serve(const void *event);
    bool convert(const Ownership &ownership, quint32 requestor, quint32 target, quint32 property);
    void continueTransfer(quint32 requestor, quint32 property);
    void dropStaleTransfers();
    void handToClipboardManager();

    X11Connection m_connection;
    quint32 m_clipboard = 0;
    quint32 m_targets = 0;
    quint32 m_timestamp = 0;
    quint32 m_multiple = 0;
    quint32 m_incr = 0;
    quint32 m_atomPair = 0;
    quint32 m_clipboardManager = 0;
    quint32 m_saveTargets = 0;
    qsizetype m_maxPiece = 0;

    mutable std::mutex m_mutex;
    std::condition_variable m_saved;
    bool m_savedByManager = false;
    std::shared_ptr<const Ownership> m_ownership;
    bool m_stop = false;

    // Touched by the serving thread only.
    std::vector<Transfer> m_transfers;

    int m_wakeFd = -1;
    std::thread m_thread;
};
