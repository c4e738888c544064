// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QList>
#include <QPair>
#include <QString>

// Reads an HTTP/1.1 response as its bytes arrive, in any split: the head (interim 1xx heads are
// skipped), then the body, taken out of its chunked or length-bound framing, or up to the connection's
// close when it has neither. Anything that is not HTTP fails it, with a reason.
class HttpResponseParser
{
public:
    enum class State { Head, Body, Done, Failed };

    // A head, or a line of chunked framing, longer than this is not a server's.
    static constexpr qsizetype kMaxHeadBytes = 64 * 1024;

    // Takes the next bytes and appends what they carry of the body to `body`. Bytes after the end of the
    // body (a server that goes on talking) are ignored.
    void feed(QByteArrayView bytes, QByteArray &body);
    // The connection closed: true when the body was whole (up to the close, for a body without framing).
    bool closed();

    State state() const { return m_state; }
    bool hasHead() const { return m_headDone; }
    int status() const { return m_status; }
    const QByteArray &reason() const { return m_reason; }
    // In the order the server sent them, names as sent.
    const QList<QPair<QByteArray, QByteArray>> &headers() const { return m_headers; }
    QByteArray header(QByteArrayView name) const;
    QString failure() const { return m_failure; }

    // Header names compare without regard to case.
    static bool sameName(QByteArrayView a, QByteArrayView b)
    {
        return a.compare(b, Qt::CaseInsensitive) == 0;
    }

private:
    enum class Framing { None, Length, Chunked, UntilClose };
    enum class Chunk { Size, Data, DataEnd, Trailer };

    // Takes bytes up to the end of a line; true with the line (without its CR LF) once it is whole.
    bool takeLine(QByteArrayView &bytes, QByteArray &line);
    // Moves up to m_remaining bytes into the body; true once none remain.
    bool takeCounted(QByteArrayView &bytes, QByteArray &body);
    void headLine(const QByteArray &line);
    void endOfHead();
    void chunked(QByteArrayView &bytes, QByteArray &body);
    void fail(const QString &reason);

    State m_state = State::Head;
    Framing m_framing = Framing::None;
    Chunk m_chunk = Chunk::Size;
    QByteArray m_line;
    qsizetype m_headBytes = 0;
    qint64 m_remaining = 0; // of the body (Length) or of the current chunk (Chunked)
    bool m_headDone = false;
    int m_status = 0;
    QByteArray m_reason;
    QList<QPair<QByteArray, QByteArray>> m_headers;
    QString m_failure;
};
