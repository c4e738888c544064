// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/NarrationStream.h"

#include "speech/OpenAIServer.h"
#include "speech/SpeechSequence.h"
#include "speech/TextPieces.h"

#include <QNetworkAccessManager>

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
    // Read per request, so that a server chosen in the settings applies to the next narration.
    if (backend == SpeechBackend::OpenAI && m_origins.defaults) {
        body.model = OpenAIServer::effectiveModel(*m_origins.defaults);
        origin = OpenAIServer::effectiveOrigin(*m_origins.defaults, m_origins.openAIOrigin,
                                               m_origins.openAIOriginFromEnvironment);
    }

    // OpenAI's endpoint takes a limited input, so a long text goes out as consecutive pieces; the
    // service takes any length in one request.
    const QStringList texts =
        backend == SpeechBackend::OpenAI ? TextPieces::split(request.text) : QStringList{request.text};
    const QNetworkRequest networkRequest = buildSpeechRequest(backend, origin, request.credential);
    QList<SpeechSequence::Piece> pieces;
    for (const QString &piece : texts) {
        body.input = piece;
        pieces.append({networkRequest, body.toJson()});
    }
    auto *sequence = new SpeechSequence(m_network, std::move(pieces), this);
    m_sequence = sequence;
    m_viaService = backend == SpeechBackend::Service;
    connect(sequence, &SpeechSequence::headReceived, this, &NarrationStream::headReceived);
    connect(sequence, &SpeechSequence::failedBeforeHead, this, &NarrationStream::failedBeforeHead);
    connect(sequence, &SpeechSequence::dataReceived, this, [this](const QByteArray &piece) {
        m_chunker.push(piece, [this](const QByteArray &chunk) { Q_EMIT chunkReceived(chunk); });
    });
    connect(sequence, &SpeechSequence::laterPieceFailed, this, &NarrationStream::laterPieceFailed);
    connect(sequence, &SpeechSequence::bodyFinished, this, &NarrationStream::bodyFinished);
    sequence->start();
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
