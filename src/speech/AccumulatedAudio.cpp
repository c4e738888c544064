// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/AccumulatedAudio.h"

#include <algorithm>

void AccumulatedAudio::append(const QByteArray &piece)
{
    if (piece.isEmpty())
        return;
    m_pieces.append(piece);
    m_size += piece.size();
}

void AccumulatedAudio::assign(const QByteArray &whole)
{
    clear();
    append(whole);
}

void AccumulatedAudio::clear()
{
    m_pieces.clear();
    m_size = 0;
}

void AccumulatedAudio::forEachRange(
    qsizetype from, qsizetype chunkBytes,
    const std::function<void(const QByteArray &, qsizetype, qsizetype)> &fn) const
{
    qsizetype pieceStart = 0;
    for (const QByteArray &piece : m_pieces) {
        const qsizetype pieceEnd = pieceStart + piece.size();
        if (pieceEnd > from) {
            qsizetype offset = std::max<qsizetype>(0, from - pieceStart);
            while (offset < piece.size()) {
                const qsizetype n = std::min(chunkBytes, piece.size() - offset);
                fn(piece, offset, n);
                offset += n;
            }
        }
        pieceStart = pieceEnd;
    }
}

QByteArray AccumulatedAudio::joined() const
{
    QByteArray all;
    all.reserve(m_size);
    for (const QByteArray &piece : m_pieces)
        all.append(piece);
    return all;
}
