// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/SpeechStream.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>

SpeechStream::SpeechStream(QNetworkAccessManager *network, const QNetworkRequest &request,
                           const QByteArray &body, QObject *parent)
    : QObject(parent)
    , m_network(network)
    , m_request(request)
    , m_body(body)
{
    // A redirected POST is not something either backend does; treat a 3xx like any other status.
    m_request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
}

SpeechStream::~SpeechStream()
{
    tearDown();
}

void SpeechStream::start()
{
    m_reply = m_network->post(m_request, m_body);
    // Connected before the event loop runs again, so no head can arrive unobserved.
    connect(m_reply, &QNetworkReply::metaDataChanged, this, &SpeechStream::onMetaDataChanged);
    connect(m_reply, &QNetworkReply::readyRead, this, &SpeechStream::onReadyRead);
    connect(m_reply, &QNetworkReply::finished, this, &SpeechStream::onFinished);
}

void SpeechStream::cancel()
{
    tearDown();
}

void SpeechStream::tearDown()
{
    if (!m_reply)
        return;
    QNetworkReply *reply = m_reply;
    m_reply = nullptr;
    reply->disconnect(this);
    reply->abort();
    reply->deleteLater();
}

void SpeechStream::onMetaDataChanged()
{
    if (m_headSeen || !m_reply)
        return;
    const QVariant status = m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (!status.isValid())
        return;
    m_headSeen = true;
    const int code = status.toInt();
    m_streaming = code == 200;
    if (!m_streaming)
        tearDown(); // the body of an error is not read
    Q_EMIT headReceived(code);
}

void SpeechStream::onReadyRead()
{
    if (!m_reply)
        return;
    if (!m_headSeen)
        onMetaDataChanged();
    if (!m_streaming || !m_reply)
        return;
    const QByteArray piece = m_reply->readAll();
    if (!piece.isEmpty())
        Q_EMIT dataReceived(piece);
}

void SpeechStream::onFinished()
{
    if (!m_reply)
        return;
    if (!m_headSeen)
        onMetaDataChanged();
    if (!m_reply)
        return;
    if (m_streaming) {
        onReadyRead();
        if (!m_reply)
            return;
    }
    const bool streaming = m_streaming;
    m_cutOff = streaming && m_reply->error() != QNetworkReply::NoError;
    tearDown();
    if (streaming)
        Q_EMIT bodyFinished();
    else
        Q_EMIT failedBeforeHead();
}
