// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/x11/X11Connection.h"

#include <QByteArray>
#include <QList>

#include <chrono>
#include <optional>

// Reads X selections synchronously on a connection of its own, so that a read works within one turn of
// the GUI thread (Qt's own reader sees a new owner's targets only after its event loop has run).
// Follows the ICCCM conversion protocol, incremental (INCR) transfers included.
class X11SelectionReader
{
public:
    struct Converted
    {
        QByteArray data;
        quint32 type = 0;
        int format = 8;
    };

    X11SelectionReader();

    bool isValid() const { return m_connection.isValid(); }
    X11Connection &connection() { return m_connection; }

    quint32 owner(quint32 selection);
    // Nothing when the owner refuses the target or does not answer within `timeout` (per piece of an
    // incremental transfer). `timedOut` tells the two apart.
    std::optional<Converted> convert(quint32 selection, quint32 target, std::chrono::milliseconds timeout,
                                     bool *timedOut = nullptr);
    // The owner's TARGETS as atoms, in its order.
    std::optional<QList<quint32>> targets(quint32 selection, std::chrono::milliseconds timeout,
                                          bool *timedOut = nullptr);

private:
    std::optional<Converted> readProperty(bool deleteAfter);
    std::optional<Converted> readIncrementally(std::chrono::milliseconds timeout, bool *timedOut);

    X11Connection m_connection;
    quint32 m_property = 0;
    quint32 m_incr = 0;
};
