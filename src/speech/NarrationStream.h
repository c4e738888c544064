// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "speech/StreamChunker.h"
#include "speech/TTSRequest.h"
#include "speech/TextPieces.h"

#include <QObject>
#include <QPointer>
#include <QUrl>

#include <memory>

class QNetworkAccessManager;
class SpeechSequence;
class UserDefaults;

// The requests of one narration and the audio they bring: a request per piece of the text, sent in
// sequence, and the received bytes handed on in whole chunks of a fixed size.
class NarrationStream : public QObject
{
    Q_OBJECT
public:
    struct Origins
    {
        UserDefaults *defaults = nullptr; // none: the OpenAI origin and model as given
        QUrl serviceOrigin;
        QUrl openAIOrigin;
        bool openAIOriginFromEnvironment = false;
    };

    struct Request
    {
        SpeechBackend backend = SpeechBackend::OpenAI;
        QString credential;
        QString text;
        QString voice;
        QString instructions;
    };

    // `network` none: one of its own.
    NarrationStream(Origins origins, QNetworkAccessManager *network, qsizetype chunkBytes,
                    QObject *parent = nullptr);
    ~NarrationStream() override;

    // Cancels whatever is under way and sends the requests for `request`.
    void start(const Request &request);
    // Tears the requests down and drops what makes no whole chunk yet; nothing is reported afterwards.
    void cancel();
    // The received bytes that make no whole chunk, taken out.
    QByteArray takeTail() { return m_chunker.takeTail(); }
    bool isViaService() const { return m_viaService; }
    // Bytes received since start(), whole chunks or not.
    qint64 receivedBytes() const { return m_receivedBytes; }
    // The places in `text` of the pieces it is sent in, one request each (a chosen server's limit applies).
    QList<TextPieces::Range> pieces(SpeechBackend backend, const QString &text) const;
    // A chosen server's own reason for the refusal just reported (headReceived, laterPieceFailed).
    QString serverMessage() const;
    // Why a chosen server's certificate was refused, once failedBeforeHead has come for that.
    QString certificateProblem() const;
    // Some audio of this narration has come.
    bool hasDeliveredAudio() const;

Q_SIGNALS:
    // As SpeechSequence reports them.
    void headReceived(int status);
    void failedBeforeHead();
    void laterPieceFailed(int status);
    void bodyFinished();
    // A chosen server's answer cannot be played; bodyFinished() follows when audio came before it.
    void audioUnplayable(const QString &message);
    void chunkReceived(const QByteArray &chunk);
    // The audio of piece `index` follows, from this frame of the narration on.
    void pieceStarted(qsizetype index, qint64 frame);

private:
    Origins m_origins;
    std::unique_ptr<QNetworkAccessManager> m_ownNetwork;
    QNetworkAccessManager *m_network = nullptr;
    QPointer<SpeechSequence> m_sequence;
    bool m_viaService = false;
    StreamChunker m_chunker;
    qint64 m_receivedBytes = 0;
};
