// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QList>

#include <functional>

// Every received audio byte of one narration, in order, kept as the pieces it arrived in. The pieces
// are shared with the audio engine's queue, so that nothing is held twice and a seek schedules the
// rest of an hour-long narration without copying it.
class AccumulatedAudio
{
public:
    void append(const QByteArray &piece);
    // Replaces the content with one piece (a stored narration).
    void assign(const QByteArray &whole);
    void clear();

    qsizetype size() const { return m_size; }
    bool isEmpty() const { return m_size == 0; }

    // Calls fn(storage, offset, bytes) for consecutive ranges from byte `from` to the end, each at most
    // `chunkBytes` long and never crossing a piece boundary.
    void forEachRange(qsizetype from, qsizetype chunkBytes,
                      const std::function<void(const QByteArray &, qsizetype, qsizetype)> &fn) const;
    // All bytes in one array (a copy).
    QByteArray joined() const;

private:
    QList<QByteArray> m_pieces;
    qsizetype m_size = 0;
};
