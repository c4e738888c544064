// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <array>
#include <atomic>
#include <cstddef>

// A fixed ring for one producer thread and one consumer thread; never allocates and never blocks.
template<typename T, std::size_t N> class SpscRing
{
    static_assert((N & (N - 1)) == 0, "N must be a power of two");

public:
    bool push(const T &item)
    {
        const std::size_t tail = m_tail.load(std::memory_order_relaxed);
        if (tail - m_head.load(std::memory_order_acquire) == N)
            return false;
        m_items[tail & (N - 1)] = item;
        m_tail.store(tail + 1, std::memory_order_release);
        return true;
    }

    // Items waiting, as the producer sees it (the consumer may have taken some meanwhile).
    std::size_t size() const
    {
        return m_tail.load(std::memory_order_relaxed) - m_head.load(std::memory_order_acquire);
    }

    bool pop(T &item)
    {
        const std::size_t head = m_head.load(std::memory_order_relaxed);
        if (head == m_tail.load(std::memory_order_acquire))
            return false;
        item = m_items[head & (N - 1)];
        m_head.store(head + 1, std::memory_order_release);
        return true;
    }

private:
    std::array<T, N> m_items{};
    alignas(64) std::atomic<std::size_t> m_head{0};
    alignas(64) std::atomic<std::size_t> m_tail{0};
};
