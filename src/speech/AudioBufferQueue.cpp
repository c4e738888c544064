// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/AudioBufferQueue.h"

#include <algorithm>

AudioBufferQueue::AudioBufferQueue()
{
    m_head = m_tail = new BufferBlock(0);
    m_releaseCursor.block = m_head;
}

AudioBufferQueue::~AudioBufferQueue()
{
    while (m_head) {
        BufferBlock *next = m_head->next.load(std::memory_order_relaxed);
        delete m_head;
        m_head = next;
    }
}

void AudioBufferQueue::append(const QByteArray &storage, const char *samples, qint64 frames, quint64 token)
{
    const quint64 index = m_writeIndex.load(std::memory_order_relaxed);
    if (index == m_tail->firstIndex + BufferBlock::kBuffers) {
        auto *block = new BufferBlock(index);
        m_tail->next.store(block, std::memory_order_release);
        m_tail = block;
        reclaim();
    }
    ScheduledBuffer &buffer = m_tail->buffers[index - m_tail->firstIndex];
    buffer.storage = storage;
    buffer.samples = samples;
    buffer.frames = frames;
    m_nextEndFrame += frames;
    buffer.endFrame = m_nextEndFrame;
    buffer.token = token;
    m_writeIndex.store(index + 1, std::memory_order_release);
}

void AudioBufferQueue::resetReaders()
{
    const quint64 written = m_writeIndex.load(std::memory_order_relaxed);
    m_endMark.store(kNoMark, std::memory_order_relaxed);
    m_fedIndex.store(written, std::memory_order_relaxed);
    m_cursorBlockFirst.store(m_tail->firstIndex, std::memory_order_relaxed);
}

void AudioBufferQueue::reclaim()
{
    const quint64 fed = m_fedIndex.load(std::memory_order_acquire);
    for (; m_releaseIndex < fed; ++m_releaseIndex)
        m_releaseCursor.at(m_releaseIndex).storage = QByteArray();
    const quint64 keepFrom =
        std::min(m_cursorBlockFirst.load(std::memory_order_acquire), m_releaseCursor.block->firstIndex);
    while (m_head != m_tail && m_head->firstIndex + BufferBlock::kBuffers <= keepFrom) {
        BufferBlock *next = m_head->next.load(std::memory_order_relaxed);
        delete m_head;
        m_head = next;
    }
}
