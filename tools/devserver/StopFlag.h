// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

// Raised once when the server is asked to exit. Every deliberate wait in the server (the delay before a
// response head, the pacing of a body) sleeps on it, so that shutdown never waits for a timer.
class StopFlag
{
public:
    using Clock = std::chrono::steady_clock;

    void raise();
    bool isRaised() const;
    // False when the flag was raised before the deadline.
    bool sleepUntil(Clock::time_point deadline) const;

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    bool m_raised = false;
};
