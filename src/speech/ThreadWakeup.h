// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>

#include <atomic>
#include <functional>
#include <memory>

class QSocketNotifier;

// Calls a function on the GUI thread when another thread asks, without blocking or allocating on that
// thread: an eventfd written at most once until the GUI thread has taken the wake-up. Without an
// eventfd, nothing is called and the owner polls instead.
class ThreadWakeup
{
public:
    ThreadWakeup(QObject *context, std::function<void()> onWake);
    ~ThreadWakeup();
    ThreadWakeup(const ThreadWakeup &) = delete;
    ThreadWakeup &operator=(const ThreadWakeup &) = delete;

    // Any thread.
    void wake();
    // GUI thread, before reading what the wake-ups announced.
    void acknowledge();

private:
    int m_fd = -1;
    std::atomic<bool> m_pending{false};
    std::unique_ptr<QSocketNotifier> m_notifier;
};
