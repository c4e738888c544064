// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Timing helpers the benchmarks share; every figure is on steady_clock.
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QThread>

#include <algorithm>
#include <chrono>
#include <functional>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

inline double msBetween(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration<double, std::milli>(to - from).count();
}

inline double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// Runs the event loop until `condition` holds or the time is up.
inline bool waitFor(const std::function<bool()> &condition, int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    while (!condition()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        QThread::usleep(500);
    }
    return true;
}

} // namespace bench
