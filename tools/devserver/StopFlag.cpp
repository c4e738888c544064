// SPDX-License-Identifier: GPL-3.0-or-later
#include "StopFlag.h"

void StopFlag::raise()
{
    {
        std::lock_guard lock(m_mutex);
        m_raised = true;
    }
    m_changed.notify_all();
}

bool StopFlag::isRaised() const
{
    std::lock_guard lock(m_mutex);
    return m_raised;
}

bool StopFlag::sleepUntil(Clock::time_point deadline) const
{
    std::unique_lock lock(m_mutex);
    return !m_changed.wait_until(lock, deadline, [this] { return m_raised; });
}
