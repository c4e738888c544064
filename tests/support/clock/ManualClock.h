// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "core/Clock.h"

#include <QList>
#include <QPointer>

// A clock that stands still until the test moves it. Delayed calls run when advance() passes their
// time, in order; every delay asked for is remembered.
class ManualClock final : public Clock
{
public:
    ManualClock();

    QDateTime now() const override { return m_now; }
    void callAfter(std::chrono::milliseconds delay, const QObject *context,
                   std::function<void()> done) override;

    // Moves the time on, running each call that falls due (including calls scheduled by those).
    void advance(std::chrono::milliseconds by);
    // The delays asked for so far, in order.
    QList<std::chrono::milliseconds> delays() const { return m_delays; }
    int pendingCalls() const { return int(m_pending.size()); }

private:
    struct Pending
    {
        QDateTime due;
        quint64 order;
        QPointer<const QObject> context;
        std::function<void()> done;
    };

    QDateTime m_now;
    QList<Pending> m_pending;
    QList<std::chrono::milliseconds> m_delays;
    quint64 m_order = 0;
};
