// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>

#include <functional>

// Cuts a byte stream into chunks of one fixed size as it arrives, whatever pieces the network delivers
// it in: the same bytes give the same chunks and the same tail however they were split.
class StreamChunker
{
public:
    explicit StreamChunker(qsizetype chunkBytes)
        : m_chunkBytes(chunkBytes)
    {}

    // Adds an arrival and calls onChunk with each whole chunk it completes, in order. Each chunk is a
    // copy of exactly its bytes, never a view into the arrival. A clear() from onChunk drops the rest.
    void push(const QByteArray &piece, const std::function<void(const QByteArray &)> &onChunk);
    // The bytes that make no whole chunk yet, taken out (empty when none).
    QByteArray takeTail();
    void clear();

    qsizetype pendingSize() const { return m_pending.size(); }

private:
    qsizetype m_chunkBytes;
    QByteArray m_pending;
    quint64 m_clears = 0;
};
