// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "core/Clock.h"

#include <QList>
#include <QPointer>

#include <algorithm>

// A clock that stands still until the test moves it. Delayed calls run when advance() passes their
// time, in order; every delay asked for is remembered.
class ManualClock final : public Clock
{
public:
    QDateTime now() const override { return m_now; }
    void callAfter(std::chrono::milliseconds delay, const QObject *context,
                   std::function<void()> done) override
    {
        m_delays.append(delay);
        const QDateTime due = m_now.addMSecs(delay.count());
        // After every call due no later: calls due together run in the order they were asked for.
        const auto at = std::ranges::upper_bound(m_pending, due, {}, &Pending::due);
        m_pending.insert(at, {due, QPointer<const QObject>(context), std::move(done)});
    }

    // Moves the time on, running each call that falls due (including calls scheduled by those).
    void advance(std::chrono::milliseconds by)
    {
        const QDateTime target = m_now.addMSecs(by.count());
        while (!m_pending.isEmpty() && m_pending.first().due <= target) {
            const Pending call = m_pending.takeFirst();
            m_now = call.due;
            if (call.context)
                call.done();
        }
        m_now = target;
    }
    // The delays asked for so far, in order.
    QList<std::chrono::milliseconds> delays() const { return m_delays; }
    int pendingCalls() const { return int(m_pending.size()); }

private:
    struct Pending
    {
        QDateTime due;
        QPointer<const QObject> context;
        std::function<void()> done;
    };

    QDateTime m_now = QDateTime::currentDateTimeUtc();
    QList<Pending> m_pending;
    QList<std::chrono::milliseconds> m_delays;
};
