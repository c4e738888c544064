// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QDateTime>

#include <chrono>
#include <functional>

class QObject;

// The time of day and delayed calls, so that code which waits seconds or minutes (retries, polls,
// watchdogs) can be driven by a test without sleeping.
class Clock
{
public:
    virtual ~Clock() = default;

    virtual QDateTime now() const = 0;
    // Calls `done` on the calling (GUI) thread after `delay`, unless `context` is destroyed first.
    virtual void callAfter(std::chrono::milliseconds delay, const QObject *context,
                           std::function<void()> done) = 0;

    // Real time and the event loop's timers.
    static Clock &system();
};
