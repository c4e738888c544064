// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QNetworkRequest>
#include <QObject>
#include <QPointer>

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

    void start();
    // Tears the request down; nothing is reported afterwards.
    void cancel();
    // The body ended early: the connection failed or was dropped after the head.
    bool wasCutOff() const { return m_cutOff; }

Q_SIGNALS:
    // The HTTP head arrived. After any status but 200 the request is torn down and nothing follows.
    void headReceived(int status);
    // The request ended without an HTTP head (refused, dropped, timed out, not HTTP).
    void failedBeforeHead();
    void dataReceived(const QByteArray &piece);
    // The body ended after a 200 head, completely or cut off (see wasCutOff()): what came is all there is.
    void bodyFinished();

private:
    void onMetaDataChanged();
    void onReadyRead();
    void onFinished();
    void tearDown();

    QNetworkAccessManager *m_network;
    QNetworkRequest m_request;
    QByteArray m_body;
    QPointer<QNetworkReply> m_reply;
    bool m_headSeen = false;
    bool m_streaming = false;
    bool m_cutOff = false;
};
