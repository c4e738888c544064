// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QList>
#include <QNetworkRequest>
#include <QObject>
#include <QPointer>

#include <functional>
#include <optional>

class QNetworkAccessManager;
class SpeechStream;

// The requests of one narration, delivered as one byte stream. A text too long for a single request is
// sent as consecutive pieces: the next piece is requested as soon as the current one has answered 200,
// so that its first bytes are there when the current body ends, and what it sends meanwhile is held back
// until then. At most two requests are under way at a time.
class SpeechSequence : public QObject
{
    Q_OBJECT
public:
    struct Piece
    {
        QNetworkRequest request;
        QByteArray body;
    };

    SpeechSequence(QNetworkAccessManager *network, QList<Piece> pieces, QObject *parent = nullptr);
    ~SpeechSequence() override;

    // Every request goes to a speech server the user chose (SpeechStream::setChosenServer). Before start().
    void setChosenServer(bool chosen) { m_chosenServer = chosen; }
    // Asked when a piece is refused (any status but 200): the pieces to send instead of that one and
    // those after it, the first of them at once; none to take the refusal as it is. Before start().
    using RetryRefused =
        std::function<QList<Piece>(qsizetype index, int status, const QString &serverMessage)>;
    void setRetryRefused(RetryRefused retry) { m_retryRefused = std::move(retry); }

    void start();
    // Tears every request down; nothing is reported afterwards.
    void cancel();
    // A chosen server's own reason for the refusal just reported (headReceived, laterPieceFailed).
    QString serverMessage() const { return m_serverMessage; }
    // Why the first piece's server certificate was refused, once failedBeforeHead has come for it.
    QString certificateProblem() const { return m_certificateProblem; }
    // Some audio has been handed on.
    bool hasDeliveredAudio() const { return m_deliveredAudio; }

Q_SIGNALS:
    // The first piece's head, as SpeechStream reports it; after any status but 200 nothing follows.
    void headReceived(int status);
    // The first piece ended without an HTTP head.
    void failedBeforeHead();
    void dataReceived(const QByteArray &bytes);
    // The bytes of piece `index` follow (sent before its first dataReceived).
    void pieceStarted(qsizetype index);
    // A later piece failed: with its status, or 0 when it ended without a head. The audio before it is
    // complete, and bodyFinished() follows at once.
    void laterPieceFailed(int status);
    // The last body ended, or a body was cut off, or a later piece failed: what came is all there is.
    void bodyFinished();
    // A chosen server's answer cannot be played. With audio delivered before it, bodyFinished() follows
    // at once; with none, nothing follows.
    void audioUnplayable(const QString &message);

private:
    struct Request
    {
        QPointer<SpeechStream> stream;
        qsizetype index = -1;
        std::optional<int> status; // 0: ended without a head
        bool finished = false;
        bool cutOff = false;
        QByteArray held; // the next piece's bytes while the current one still streams
        std::optional<QString> unplayable;
        QString serverMessage;
    };

    void startPiece(Request &request, qsizetype index);
    void onHead(SpeechStream *stream, int status);
    void onFailedBeforeHead(SpeechStream *stream);
    void onData(SpeechStream *stream, const QByteArray &bytes);
    void onFinished(SpeechStream *stream);
    void onUnplayable(SpeechStream *stream, const QString &message);
    void failUnplayable(const QString &message);
    void deliver(const QByteArray &bytes);
    void advance();
    bool retried(int status, const QString &serverMessage);
    void requestNextIfDue();
    void end();
    static void drop(Request &request);

    QNetworkAccessManager *m_network;
    QList<Piece> m_pieces;
    Request m_current;
    Request m_next;
    qsizetype m_deliveringPiece = -1;
    bool m_chosenServer = false;
    RetryRefused m_retryRefused;
    bool m_deliveredAudio = false;
    QString m_serverMessage;
    QString m_certificateProblem;
};
