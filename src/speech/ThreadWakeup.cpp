// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/ThreadWakeup.h"

#include "core/Logging.h"

#include <QSocketNotifier>

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

ThreadWakeup::ThreadWakeup(QObject *context, std::function<void()> onWake)
{
    m_fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (m_fd >= 0) {
        m_notifier = std::make_unique<QSocketNotifier>(m_fd, QSocketNotifier::Read);
        QObject::connect(m_notifier.get(), &QSocketNotifier::activated, context, std::move(onWake));
    } else {
        qCWarning(lcAudio) << "eventfd failed:" << std::strerror(errno)
                           << "- completions arrive only through deliverPending()";
    }
}

ThreadWakeup::~ThreadWakeup()
{
    m_notifier.reset();
    if (m_fd >= 0)
        ::close(m_fd);
}

void ThreadWakeup::wake()
{
    if (m_pending.exchange(true, std::memory_order_acq_rel) || m_fd < 0)
        return;
    const quint64 one = 1;
    [[maybe_unused]] const ssize_t written = ::write(m_fd, &one, sizeof one);
}

// The eventfd is emptied before the flag is cleared, never after: a wake() between the two finds the flag
// still set and writes nothing, and what it announced is read after this returns; a wake() after the clear
// writes again. Reading after the clear could swallow such a write while the flag stays set, and no wake()
// would ever write again.
void ThreadWakeup::acknowledge()
{
    if (m_fd >= 0) {
        quint64 count = 0;
        [[maybe_unused]] const ssize_t got = ::read(m_fd, &count, sizeof count);
    }
    m_pending.exchange(false, std::memory_order_acq_rel);
}
