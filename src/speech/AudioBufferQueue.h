// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>

#include <array>
#include <atomic>
#include <cstddef>
#include <limits>

struct ScheduledBuffer
{
    QByteArray storage;            // keeps the samples alive; only the GUI thread touches it
    const char *samples = nullptr; // little-endian 16-bit
    qint64 frames = 0;
    qint64 endFrame = 0; // narration frame just after this buffer, counted from the last restart
    quint64 token = 0;
};

// Buffers live in a list of fixed blocks: appending never moves an entry the render side may be
// reading, and a burst of thousands of buffers costs one small allocation per block.
struct BufferBlock
{
    static constexpr std::size_t kBuffers = 512;

    explicit BufferBlock(quint64 first)
        : firstIndex(first)
    {}
    const quint64 firstIndex;
    std::array<ScheduledBuffer, kBuffers> buffers;
    std::atomic<BufferBlock *> next{nullptr};
};

// A reader's place in the block list. Indexes passed in must already be published, so that every
// block on the way exists.
struct BlockCursor
{
    BufferBlock *block = nullptr;

    ScheduledBuffer &at(quint64 index)
    {
        while (index >= block->firstIndex + BufferBlock::kBuffers)
            block = block->next.load(std::memory_order_acquire);
        return block->buffers[index - block->firstIndex];
    }
};

// The scheduled buffers, numbered in order: the GUI thread appends and publishes them, the render side
// reads them through its own cursors without locks and tells how far it has got, and the GUI thread then
// drops the samples and the blocks that no reader needs any more.
class AudioBufferQueue
{
public:
    static constexpr quint64 kNoMark = std::numeric_limits<quint64>::max();

    AudioBufferQueue();
    ~AudioBufferQueue();
    AudioBufferQueue(const AudioBufferQueue &) = delete;
    AudioBufferQueue &operator=(const AudioBufferQueue &) = delete;

    // --- GUI thread
    void append(const QByteArray &storage, const char *samples, qint64 frames, quint64 token);
    // No more buffers after those appended so far, until the next append.
    void markEnd()
    {
        m_endMark.store(m_writeIndex.load(std::memory_order_relaxed), std::memory_order_release);
    }
    // Releases the samples of buffers the render side has fed, and the blocks behind both its cursors.
    void reclaim();
    // The buffers appended from now on count their frames from 0 again.
    void restartFrameCount() { m_nextEndFrame = 0; }

    // --- Render side (or the GUI thread while the render side is held off)
    quint64 published() const { return m_writeIndex.load(std::memory_order_acquire); }
    quint64 endMark() const { return m_endMark.load(std::memory_order_acquire); }
    // Where readers start after a reset: past every buffer appended so far, with no end mark.
    BlockCursor tailCursor() const { return {m_tail}; }
    void resetReaders();
    // The render side is done feeding before `fedIndex`, and its cursors are at or after the block that
    // starts at `firstNeeded`.
    void reportProgress(quint64 fedIndex, quint64 firstNeeded)
    {
        m_fedIndex.store(fedIndex, std::memory_order_release);
        m_cursorBlockFirst.store(firstNeeded, std::memory_order_release);
    }
    BufferBlock *headBlock() const { return m_head; }

private:
    BufferBlock *m_head = nullptr;
    BufferBlock *m_tail = nullptr;
    BlockCursor m_releaseCursor;
    quint64 m_releaseIndex = 0;
    qint64 m_nextEndFrame = 0;

    std::atomic<quint64> m_writeIndex{0};
    std::atomic<quint64> m_endMark{kNoMark};
    std::atomic<quint64> m_fedIndex{0};
    std::atomic<quint64> m_cursorBlockFirst{0};
};
