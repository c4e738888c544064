// SPDX-License-Identifier: GPL-3.0-or-later
#include "ManualClock.h"

#include <algorithm>

ManualClock::ManualClock()
    : m_now(QDateTime::currentDateTimeUtc())
{}

void ManualClock::callAfter(std::chrono::milliseconds delay, const QObject *context,
                            std::function<void()> done)
{
    m_delays.append(delay);
    m_pending.append(
        {m_now.addMSecs(delay.count()), m_order++, QPointer<const QObject>(context), std::move(done)});
}

void ManualClock::advance(std::chrono::milliseconds by)
{
    const QDateTime target = m_now.addMSecs(by.count());
    for (;;) {
        const auto next =
            std::min_element(m_pending.begin(), m_pending.end(), [](const Pending &a, const Pending &b) {
                return a.due != b.due ? a.due < b.due : a.order < b.order;
            });
        if (next == m_pending.end() || next->due > target)
            break;
        Pending call = std::move(*next);
        m_pending.erase(next);
        m_now = call.due;
        if (call.context)
            call.done();
    }
    m_now = target;
}
