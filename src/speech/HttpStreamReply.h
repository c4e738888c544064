// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "speech/HttpResponseParser.h"

#include <QElapsedTimer>
#include <QNetworkReply>
#include <QTimer>

class QNetworkAccessManager;
class QTcpSocket;

// A POST whose answer is read on the calling thread, from its own socket, as it arrives. A speech
// stream brings a piece of audio twenty times a second for minutes; through QNetworkAccessManager each
// piece wakes its network thread and then this one, which costs about as much again as the rest of
// playing. HTTP/1.1 over TCP or TLS, one request per connection (the next piece of a narration is asked
// for while the current one plays, so the handshake is not heard). Behaves as QNetworkAccessManager's
// replies do towards their reader: the same signals, attributes, headers and errors.
class HttpStreamReply final : public QNetworkReply
{
    Q_OBJECT
public:
    // A reply for `request`: this kind when it can carry it (http or https, no proxy and no credentials
    // in the address), else `network`'s.
    static QNetworkReply *post(QNetworkAccessManager &network, const QNetworkRequest &request,
                               const QByteArray &body);

    HttpStreamReply(const QNetworkRequest &request, const QByteArray &body, QObject *parent = nullptr);
    ~HttpStreamReply() override;

    void abort() override;
    qint64 bytesAvailable() const override;
    bool isSequential() const override { return true; }

protected:
    qint64 readData(char *data, qint64 maxSize) override;

private:
    static bool canCarry(const QNetworkAccessManager &network, const QNetworkRequest &request);
    void sendRequest();
    void onReadable();
    void onClosed();
    void onSocketError();
    void onTimer();
    // Ends the reply: reports `error` (NoError: a whole body) and then finished().
    void finish(NetworkError error, const QString &text = QString());

    QByteArray m_requestBytes;
    QTcpSocket *m_socket = nullptr;
    HttpResponseParser m_parser;
    QByteArray m_buffer;
    qsizetype m_bufferOffset = 0;
    QTimer m_timeout;
    QElapsedTimer m_sinceActivity;
    int m_timeoutMs = 0;
};
