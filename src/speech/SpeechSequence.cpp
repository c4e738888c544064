// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/SpeechSequence.h"

#include "speech/SpeechStream.h"

SpeechSequence::SpeechSequence(QNetworkAccessManager *network, QList<Piece> pieces, QObject *parent)
    : QObject(parent)
    , m_network(network)
    , m_pieces(std::move(pieces))
{}

SpeechSequence::~SpeechSequence()
{
    cancel();
}

void SpeechSequence::start()
{
    if (!m_pieces.isEmpty())
        startPiece(m_current, 0);
}

void SpeechSequence::cancel()
{
    drop(m_current);
    drop(m_next);
}

void SpeechSequence::drop(Request &request)
{
    if (SpeechStream *stream = request.stream) {
        stream->disconnect();
        stream->cancel();
        stream->deleteLater();
    }
    request = Request();
}

void SpeechSequence::startPiece(Request &request, qsizetype index)
{
    request = Request();
    request.index = index;
    auto *stream = new SpeechStream(m_network, m_pieces[index].request, m_pieces[index].body, this);
    request.stream = stream;
    stream->setChosenServer(m_chosenServer);
    connect(stream, &SpeechStream::headReceived, this,
            [this, stream](int status) { onHead(stream, status); });
    connect(stream, &SpeechStream::failedBeforeHead, this, [this, stream] { onFailedBeforeHead(stream); });
    connect(stream, &SpeechStream::dataReceived, this,
            [this, stream](const QByteArray &bytes) { onData(stream, bytes); });
    connect(stream, &SpeechStream::bodyFinished, this, [this, stream] { onFinished(stream); });
    connect(stream, &SpeechStream::audioUnplayable, this,
            [this, stream](const QString &message) { onUnplayable(stream, message); });
    stream->start();
}

void SpeechSequence::onHead(SpeechStream *stream, int status)
{
    if (stream == m_next.stream) {
        m_next.status = status;
        m_next.serverMessage = stream->serverMessage();
        return;
    }
    m_current.status = status;
    m_serverMessage = stream->serverMessage();
    if (status != 200 && retried(status, m_serverMessage))
        return;
    if (m_current.index == 0) {
        if (status != 200)
            drop(m_current);
        Q_EMIT headReceived(status);
        if (status == 200)
            requestNextIfDue();
        return;
    }
    if (status == 200)
        requestNextIfDue();
    else
        end();
}

void SpeechSequence::onFailedBeforeHead(SpeechStream *stream)
{
    if (stream == m_next.stream) {
        m_next.status = 0;
        return;
    }
    m_current.status = 0;
    if (m_current.index == 0) {
        m_certificateProblem = stream->certificateProblem();
        drop(m_current);
        Q_EMIT failedBeforeHead();
        return;
    }
    end();
}

void SpeechSequence::onData(SpeechStream *stream, const QByteArray &bytes)
{
    if (stream == m_next.stream)
        m_next.held.append(bytes);
    else
        deliver(bytes);
}

void SpeechSequence::deliver(const QByteArray &bytes)
{
    m_deliveredAudio = true;
    if (m_current.index != m_deliveringPiece) {
        m_deliveringPiece = m_current.index;
        Q_EMIT pieceStarted(m_deliveringPiece);
    }
    Q_EMIT dataReceived(bytes);
}

void SpeechSequence::onUnplayable(SpeechStream *stream, const QString &message)
{
    if (stream == m_next.stream) {
        m_next.unplayable = message;
        return;
    }
    failUnplayable(message);
}

void SpeechSequence::failUnplayable(const QString &message)
{
    drop(m_next);
    drop(m_current);
    const bool delivered = m_deliveredAudio;
    Q_EMIT audioUnplayable(message);
    if (delivered)
        Q_EMIT bodyFinished();
}

void SpeechSequence::onFinished(SpeechStream *stream)
{
    Request &request = stream == m_next.stream ? m_next : m_current;
    request.finished = true;
    request.cutOff = stream->wasCutOff();
    if (&request == &m_current)
        advance();
}

// The current body has ended: hand over to the next piece, whatever state it has reached.
void SpeechSequence::advance()
{
    while (m_current.finished) {
        if (m_current.cutOff || m_current.index + 1 >= m_pieces.size()) {
            // A piece cut off short ends the narration there, as a single cut-off stream does.
            drop(m_next);
            drop(m_current);
            Q_EMIT bodyFinished();
            return;
        }
        const qsizetype next = m_current.index + 1;
        drop(m_current);
        if (!m_next.stream) {
            // Not requested yet: request it now.
            startPiece(m_current, next);
            return;
        }
        m_current = std::exchange(m_next, Request());
        if (!m_current.status)
            return; // its head is still on the way
        if (*m_current.status != 200) {
            m_serverMessage = m_current.serverMessage;
            if (!retried(*m_current.status, m_serverMessage))
                end();
            return;
        }
        if (!m_current.held.isEmpty())
            deliver(std::exchange(m_current.held, QByteArray()));
        if (m_current.unplayable) {
            failUnplayable(*m_current.unplayable);
            return;
        }
        if (!m_current.cutOff)
            requestNextIfDue();
    }
}

// Replaces the refused current piece and those after it, when the retry hook gives replacements, and
// requests the first replacement.
bool SpeechSequence::retried(int status, const QString &serverMessage)
{
    if (!m_retryRefused)
        return false;
    const qsizetype index = m_current.index;
    const QList<Piece> replacement = m_retryRefused(index, status, serverMessage);
    if (replacement.isEmpty())
        return false;
    m_pieces = m_pieces.first(index) + replacement;
    drop(m_next);
    drop(m_current);
    startPiece(m_current, index);
    return true;
}

void SpeechSequence::requestNextIfDue()
{
    const qsizetype next = m_current.index + 1;
    if (next < m_pieces.size() && !m_next.stream && m_current.status == 200)
        startPiece(m_next, next);
}

void SpeechSequence::end()
{
    const int status = m_current.status.value_or(0);
    drop(m_next);
    drop(m_current);
    Q_EMIT laterPieceFailed(status);
    Q_EMIT bodyFinished();
}
