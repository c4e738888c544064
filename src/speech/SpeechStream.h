// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QNetworkRequest>
#include <QObject>
#include <QPointer>
#include <QTimer>

#include <memory>

class ResponseAudio;

class QNetworkAccessManager;
class QNetworkReply;

// One speech request: sends it and reports the response head, then each piece of the body as it
// arrives, then the end of the body. Bytes are handed on as they come; nothing waits for the end.
class SpeechStream : public QObject
{
    Q_OBJECT
public:
    SpeechStream(QNetworkAccessManager *network, const QNetworkRequest &request, const QByteArray &body,
                 QObject *parent = nullptr);
    ~SpeechStream() override;

    // For a speech server the user chose, which may answer in any audio format and explains its refusals
    // in the body: the body of a 200 is turned into the speech format as it arrives (dataReceived carries
    // only that), and the body of any other status is read, up to a limit, before headReceived reports
    // it. Set before start().
    void setChosenServer(bool chosen) { m_chosenServer = chosen; }

    void start();
    // Tears the request down; nothing is reported afterwards.
    void cancel();
    // The body ended early: the connection failed or was dropped after the head.
    bool wasCutOff() const { return m_cutOff; }
    // A chosen server's own reason for a refusal (empty when it gave none), once headReceived has come.
    QString serverMessage() const { return m_serverMessage; }
    // Why a chosen server's certificate was refused, when that ended the request (then failedBeforeHead
    // has come); empty otherwise.
    QString certificateProblem() const { return m_certificateProblem; }

Q_SIGNALS:
    // The HTTP head arrived. After any status but 200 the request is torn down and nothing follows.
    void headReceived(int status);
    // The request ended without an HTTP head (refused, dropped, timed out, not HTTP).
    void failedBeforeHead();
    void dataReceived(const QByteArray &piece);
    // The body ended after a 200 head, completely or cut off (see wasCutOff()): what came is all there is.
    void bodyFinished();
    // A chosen server's 200 body cannot be played (no audio in it, or a format that cannot be decoded):
    // the request is torn down and nothing follows. Audio before it has been delivered.
    void audioUnplayable(const QString &message);

private:
    void onMetaDataChanged();
    void onReadyRead();
    void onFinished();
    void tearDown();
    void deliver(const QByteArray &piece);
    void reportRefusal();

    QNetworkAccessManager *m_network;
    QNetworkRequest m_request;
    QByteArray m_body;
    QPointer<QNetworkReply> m_reply;
    bool m_headSeen = false;
    bool m_streaming = false;
    bool m_cutOff = false;
    bool m_chosenServer = false;
    int m_status = 0;
    QByteArray m_errorBody;
    QString m_serverMessage;
    QString m_certificateProblem;
    QTimer m_errorBodyTimeout;
    std::unique_ptr<ResponseAudio> m_audio;
};
