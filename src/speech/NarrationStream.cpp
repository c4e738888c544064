// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/NarrationStream.h"

#include "speech/OpenAIServer.h"
#include "speech/ServerErrorBody.h"
#include "speech/SpeechSequence.h"
#include "speech/TextPieces.h"

#include <QNetworkAccessManager>
#include <QSet>

NarrationStream::NarrationStream(Origins origins, QNetworkAccessManager *network, qsizetype chunkBytes,
                                 QObject *parent)
    : QObject(parent)
    , m_origins(std::move(origins))
    , m_network(network)
    , m_chunker(chunkBytes)
{
    if (!m_network) {
        m_ownNetwork = std::make_unique<QNetworkAccessManager>();
        m_network = m_ownNetwork.get();
    }
}

NarrationStream::~NarrationStream()
{
    cancel();
}

void NarrationStream::start(const Request &request)
{
    cancel();
    const SpeechBackend backend = request.backend;
    TTSRequest body;
    body.model = speechModel(backend);
    body.voice = request.voice;
    body.instructions = request.instructions;
    QUrl origin = backend == SpeechBackend::Service ? m_origins.serviceOrigin : m_origins.openAIOrigin;
    std::optional<QUrl> chosen;
    int inputLimit = int(TextPieces::kOpenAIInputLimit);
    // Read per request, so that a server chosen in the settings applies to the next narration.
    if (backend == SpeechBackend::OpenAI && m_origins.defaults) {
        body.model = OpenAIServer::effectiveModel(*m_origins.defaults);
        origin = OpenAIServer::effectiveOrigin(*m_origins.defaults, m_origins.openAIOrigin,
                                               m_origins.openAIOriginFromEnvironment);
        chosen = OpenAIServer::chosenServer(*m_origins.defaults, m_origins.openAIOriginFromEnvironment);
        if (chosen) {
            body.model = OpenAIServer::chosenServerModel(*m_origins.defaults);
            inputLimit = OpenAIServer::maxInputChars(*m_origins.defaults);
        }
    }

    QStringList texts;
    for (const TextPieces::Range &range : pieces(backend, request.text))
        texts.append(request.text.mid(range.start, range.end - range.start));
    const QNetworkRequest networkRequest =
        buildSpeechRequest(backend, origin, request.credential, OpenAIServer::headTimeoutMs(chosen));
    const auto piecesOf = [networkRequest, body](const QStringList &inputs) {
        QList<SpeechSequence::Piece> pieces;
        TTSRequest piece = body;
        for (const QString &input : inputs) {
            piece.input = input;
            pieces.append({networkRequest, piece.toJson()});
        }
        return pieces;
    };
    auto *sequence = new SpeechSequence(m_network, piecesOf(texts), this);
    if (chosen) {
        sequence->setChosenServer(true);
        // A server that refuses a piece for its size gets the rest of the text in pieces half as long, for
        // the rest of this narration; each piece is retried once.
        sequence->setRetryRefused([texts, inputLimit, piecesOf, retried = QSet<qsizetype>()](
                                      qsizetype index, int status, const QString &message) mutable {
            QList<SpeechSequence::Piece> none;
            if (!ServerErrorBody::refusesInputLength(status, message) || retried.contains(index) ||
                inputLimit <= ServerErrorBody::kMinInputChars)
                return none;
            retried.insert(index);
            inputLimit = ServerErrorBody::halvedLimit(inputLimit);
            const QString rest = texts.mid(index).join(QString());
            texts = texts.first(index) + TextPieces::split(rest, inputLimit);
            return piecesOf(texts.mid(index));
        });
    }
    m_sequence = sequence;
    m_viaService = backend == SpeechBackend::Service;
    connect(sequence, &SpeechSequence::headReceived, this, &NarrationStream::headReceived);
    connect(sequence, &SpeechSequence::failedBeforeHead, this, &NarrationStream::failedBeforeHead);
    m_receivedBytes = 0;
    connect(sequence, &SpeechSequence::pieceStarted, this,
            [this](qsizetype index) { Q_EMIT pieceStarted(index, m_receivedBytes / 2); });
    connect(sequence, &SpeechSequence::dataReceived, this, [this](const QByteArray &piece) {
        m_receivedBytes += piece.size();
        m_chunker.push(piece, [this](const QByteArray &chunk) { Q_EMIT chunkReceived(chunk); });
    });
    connect(sequence, &SpeechSequence::laterPieceFailed, this, &NarrationStream::laterPieceFailed);
    connect(sequence, &SpeechSequence::audioUnplayable, this, &NarrationStream::audioUnplayable);
    connect(sequence, &SpeechSequence::bodyFinished, this, &NarrationStream::bodyFinished);
    sequence->start();
}

// OpenAI's endpoint takes a limited input, so a long text goes out as consecutive pieces; the service
// takes any length in one request.
QList<TextPieces::Range> NarrationStream::pieces(SpeechBackend backend, const QString &text) const
{
    if (backend != SpeechBackend::OpenAI)
        return {{0, text.size()}};
    const bool chosen = m_origins.defaults && OpenAIServer::chosenServer(
                                                  *m_origins.defaults, m_origins.openAIOriginFromEnvironment);
    return TextPieces::splitRanges(text, chosen ? OpenAIServer::maxInputChars(*m_origins.defaults)
                                                : TextPieces::kOpenAIInputLimit);
}

QString NarrationStream::serverMessage() const
{
    return m_sequence ? m_sequence->serverMessage() : QString();
}

QString NarrationStream::certificateProblem() const
{
    return m_sequence ? m_sequence->certificateProblem() : QString();
}

bool NarrationStream::hasDeliveredAudio() const
{
    return m_sequence && m_sequence->hasDeliveredAudio();
}

void NarrationStream::cancel()
{
    m_chunker.clear();
    if (SpeechSequence *sequence = m_sequence) {
        m_sequence = nullptr;
        sequence->disconnect(this);
        sequence->cancel();
        sequence->deleteLater();
    }
}
