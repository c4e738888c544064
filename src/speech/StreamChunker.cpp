// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/StreamChunker.h"

#include <utility>

void StreamChunker::push(const QByteArray &piece, const std::function<void(const QByteArray &)> &onChunk)
{
    QByteArray buffer = std::exchange(m_pending, QByteArray());
    buffer.append(piece);
    const quint64 clears = m_clears;
    qsizetype consumed = 0;
    while (buffer.size() - consumed >= m_chunkBytes) {
        // A copy of exactly one chunk: mid() would hand back the network's whole buffer, spare capacity
        // included, when a piece is exactly one chunk long, and chunks are kept for the narration.
        onChunk(QByteArray(buffer.constData() + consumed, m_chunkBytes));
        consumed += m_chunkBytes;
        if (m_clears != clears)
            return;
    }
    // The leftover is copied out: keeping the buffer would hold the whole arrival's allocation (a fast
    // server can send minutes of audio in one piece) for the rest of the narration.
    m_pending = consumed > 0 ? QByteArray(buffer.constData() + consumed, buffer.size() - consumed)
                             : std::move(buffer);
}

QByteArray StreamChunker::takeTail()
{
    return std::exchange(m_pending, QByteArray());
}

void StreamChunker::clear()
{
    m_pending.clear();
    ++m_clears;
}
