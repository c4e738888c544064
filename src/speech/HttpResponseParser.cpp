// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/HttpResponseParser.h"

#include <algorithm>
#include <optional>

namespace {

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

// A decimal or hexadecimal count of at most 15 digits (a petabyte and more), nothing else.
std::optional<qint64> parseCount(QByteArrayView text, int base)
{
    if (text.isEmpty() || text.size() > 15)
        return std::nullopt;
    qint64 value = 0;
    for (const char c : text) {
        int digit = -1;
        if (isDigit(c))
            digit = c - '0';
        else if (base == 16 && c >= 'a' && c <= 'f')
            digit = c - 'a' + 10;
        else if (base == 16 && c >= 'A' && c <= 'F')
            digit = c - 'A' + 10;
        if (digit < 0)
            return std::nullopt;
        value = value * base + digit;
    }
    return value;
}

} // namespace

QByteArray HttpResponseParser::header(QByteArrayView name) const
{
    for (const auto &[key, value] : m_headers) {
        if (sameName(key, name))
            return value;
    }
    return {};
}

void HttpResponseParser::feed(QByteArrayView bytes, QByteArray &body)
{
    while (!bytes.isEmpty() && (m_state == State::Head || m_state == State::Body)) {
        if (m_state == State::Head) {
            // Counted before the line is taken, so that the same bytes fail alike in any split.
            const qsizetype end = bytes.indexOf('\n');
            m_headBytes += end < 0 ? bytes.size() : end + 1;
            QByteArray line;
            if (m_headBytes > kMaxHeadBytes)
                fail(QStringLiteral("a response head of over %1 bytes").arg(kMaxHeadBytes));
            else if (takeLine(bytes, line))
                headLine(line);
            continue;
        }
        switch (m_framing) {
        case Framing::Length:
            if (takeCounted(bytes, body))
                m_state = State::Done;
            break;
        case Framing::UntilClose:
            body.append(bytes);
            bytes = {};
            break;
        case Framing::Chunked:
            chunked(bytes, body);
            break;
        case Framing::None:
            m_state = State::Done;
            break;
        }
    }
}

bool HttpResponseParser::closed()
{
    if (m_state == State::Body && m_framing == Framing::UntilClose)
        m_state = State::Done;
    else if (m_state == State::Head)
        fail(QStringLiteral("the connection closed before a whole response head"));
    else if (m_state == State::Body)
        fail(QStringLiteral("the connection closed before the end of the body"));
    return m_state == State::Done;
}

bool HttpResponseParser::takeCounted(QByteArrayView &bytes, QByteArray &body)
{
    const qsizetype take = qsizetype(std::min<qint64>(m_remaining, bytes.size()));
    body.append(bytes.first(take));
    bytes = bytes.sliced(take);
    m_remaining -= take;
    return m_remaining == 0;
}

bool HttpResponseParser::takeLine(QByteArrayView &bytes, QByteArray &line)
{
    const qsizetype end = bytes.indexOf('\n');
    const QByteArrayView part = end < 0 ? bytes : bytes.first(end);
    if (m_line.size() + part.size() > kMaxHeadBytes) {
        fail(QStringLiteral("a line of over %1 bytes").arg(kMaxHeadBytes));
        bytes = {};
        return false;
    }
    m_line.append(part);
    bytes = end < 0 ? QByteArrayView() : bytes.sliced(end + 1);
    if (end < 0)
        return false;
    if (m_line.endsWith('\r'))
        m_line.chop(1);
    line = std::exchange(m_line, QByteArray());
    return true;
}

void HttpResponseParser::headLine(const QByteArray &line)
{
    if (m_status == 0) {
        if (line.isEmpty())
            return; // stray line ends before the status line are allowed
        // "HTTP/1.1 200 OK": the version, a three-digit status, an optional reason.
        const bool statusLine = line.size() >= 12 && line.startsWith("HTTP/1.") && isDigit(line[7]) &&
                                line[8] == ' ' && isDigit(line[9]) && isDigit(line[10]) &&
                                isDigit(line[11]) && (line.size() == 12 || line[12] == ' ');
        const int status = statusLine ? line.mid(9, 3).toInt() : 0;
        if (status < 100 || status > 599)
            return fail(QStringLiteral("not an HTTP/1.1 response"));
        m_status = status;
        m_reason = line.mid(13).trimmed();
        return;
    }
    if (line.isEmpty())
        return endOfHead();
    if (line.front() == ' ' || line.front() == '\t') {
        if (m_headers.isEmpty())
            return fail(QStringLiteral("a malformed header line"));
        QByteArray &value = m_headers.last().second; // an old-style folded value
        value = value.isEmpty() ? line.trimmed() : value + ' ' + line.trimmed();
        return;
    }
    const qsizetype colon = line.indexOf(':');
    const QByteArray name = line.left(std::max<qsizetype>(colon, 0));
    if (name.isEmpty() || name.contains(' ') || name.contains('\t'))
        return fail(QStringLiteral("a malformed header line"));
    m_headers.append({name, line.mid(colon + 1).trimmed()});
}

void HttpResponseParser::endOfHead()
{
    if (m_status == 101)
        return fail(QStringLiteral("a switch of protocols"));
    if (m_status < 200) {
        // An interim answer (100 Continue, 103 Early Hints): the real one follows.
        m_status = 0;
        m_reason.clear();
        m_headers.clear();
        return;
    }
    m_state = State::Body;
    m_headDone = true;
    QList<QByteArray> codings;
    QList<QByteArray> lengths;
    for (const auto &[name, value] : std::as_const(m_headers)) {
        QList<QByteArray> *list = sameName(name, "Transfer-Encoding") ? &codings
                                  : sameName(name, "Content-Length")  ? &lengths
                                                                      : nullptr;
        for (const QByteArray &item : list ? value.split(',') : QList<QByteArray>())
            list->append(item.trimmed().toLower());
    }
    if (m_status == 204 || m_status == 304) {
        m_framing = Framing::None;
        m_state = State::Done;
    } else if (!codings.isEmpty()) {
        codings.removeAll("identity");
        if (codings.isEmpty())
            m_framing = Framing::UntilClose;
        else if (codings == QList<QByteArray>{"chunked"})
            m_framing = Framing::Chunked;
        else
            fail(QStringLiteral("a body in a transfer coding other than chunked"));
    } else if (!lengths.isEmpty()) {
        const std::optional<qint64> length = parseCount(lengths.first(), 10);
        if (!length || std::any_of(lengths.begin(), lengths.end(),
                                   [&](const QByteArray &other) { return other != lengths.first(); }))
            return fail(QStringLiteral("a malformed Content-Length"));
        m_framing = Framing::Length;
        m_remaining = *length;
        if (m_remaining == 0)
            m_state = State::Done;
    } else {
        m_framing = Framing::UntilClose;
    }
}

void HttpResponseParser::chunked(QByteArrayView &bytes, QByteArray &body)
{
    QByteArray line;
    switch (m_chunk) {
    case Chunk::Size: {
        if (!takeLine(bytes, line))
            return;
        const qsizetype extension = line.indexOf(';'); // a chunk's extensions mean nothing here
        const std::optional<qint64> size =
            parseCount((extension < 0 ? line : line.left(extension)).trimmed(), 16);
        if (!size)
            return fail(QStringLiteral("a malformed chunk size"));
        m_remaining = *size;
        m_chunk = m_remaining == 0 ? Chunk::Trailer : Chunk::Data;
        return;
    }
    case Chunk::Data:
        if (takeCounted(bytes, body))
            m_chunk = Chunk::DataEnd;
        return;
    case Chunk::DataEnd:
        if (!takeLine(bytes, line))
            return;
        if (!line.isEmpty())
            return fail(QStringLiteral("a chunk longer than its size"));
        m_chunk = Chunk::Size;
        return;
    case Chunk::Trailer:
        if (takeLine(bytes, line) && line.isEmpty())
            m_state = State::Done;
        return;
    }
}

void HttpResponseParser::fail(const QString &reason)
{
    if (m_state == State::Failed)
        return;
    m_state = State::Failed;
    m_failure = reason;
}
