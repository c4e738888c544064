// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/SpeechStream.h"

#include "speech/HttpStreamReply.h"
#include "speech/ResponseAudio.h"
#include "speech/ServerErrorBody.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QSslError>

namespace {
// A refusal's body comes right after its head; one that does not is not waited for long.
constexpr int kErrorBodyWaitMs = 3000;
} // namespace

SpeechStream::SpeechStream(QNetworkAccessManager *network, const QNetworkRequest &request,
                           const QByteArray &body, QObject *parent)
    : QObject(parent)
    , m_network(network)
    , m_request(request)
    , m_body(body)
{
    // A redirected POST is not something either backend does; treat a 3xx like any other status.
    m_request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    m_errorBodyTimeout.setSingleShot(true);
    m_errorBodyTimeout.setInterval(kErrorBodyWaitMs);
    connect(&m_errorBodyTimeout, &QTimer::timeout, this, &SpeechStream::reportRefusal);
}

SpeechStream::~SpeechStream()
{
    tearDown();
}

void SpeechStream::start()
{
    m_reply = HttpStreamReply::post(*m_network, m_request, m_body);
    // Connected before the event loop runs again, so no head can arrive unobserved.
    connect(m_reply, &QNetworkReply::metaDataChanged, this, &SpeechStream::onMetaDataChanged);
    connect(m_reply, &QNetworkReply::readyRead, this, &SpeechStream::onReadyRead);
    connect(m_reply, &QNetworkReply::finished, this, &SpeechStream::onFinished);
    if (m_chosenServer) {
        connect(m_reply, &QNetworkReply::sslErrors, this, [this](const QList<QSslError> &errors) {
            if (!errors.isEmpty())
                m_certificateProblem = errors.constFirst().errorString();
        });
    }
}

void SpeechStream::cancel()
{
    tearDown();
}

void SpeechStream::tearDown()
{
    m_errorBodyTimeout.stop();
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
    m_status = code;
    m_streaming = code == 200;
    if (m_chosenServer && m_streaming)
        m_audio = std::make_unique<ResponseAudio>(m_reply->rawHeader("Content-Type"));
    if (m_chosenServer && !m_streaming) {
        m_errorBodyTimeout.start(); // the head is reported once the body has been read
        return;
    }
    if (!m_streaming)
        tearDown(); // the body of an error is not read
    Q_EMIT headReceived(code);
}

void SpeechStream::reportRefusal()
{
    if (m_reply)
        m_errorBody.append(m_reply->read(ServerErrorBody::kMaxBodyBytes + 1 - m_errorBody.size()));
    m_serverMessage = ServerErrorBody::message(m_errorBody).value_or(QString());
    tearDown();
    Q_EMIT headReceived(m_status);
}

void SpeechStream::deliver(const QByteArray &piece)
{
    if (!m_audio) {
        if (!piece.isEmpty())
            Q_EMIT dataReceived(piece);
        return;
    }
    const QByteArray pcm = m_audio->push(piece);
    if (!pcm.isEmpty())
        Q_EMIT dataReceived(pcm);
    if (const std::optional<QString> failure = m_audio->failure(); failure && m_reply) {
        tearDown();
        Q_EMIT audioUnplayable(*failure);
    }
}

void SpeechStream::onReadyRead()
{
    if (!m_reply)
        return;
    if (!m_headSeen)
        onMetaDataChanged();
    if (!m_reply)
        return;
    if (m_chosenServer && !m_streaming) {
        m_errorBody.append(m_reply->read(ServerErrorBody::kMaxBodyBytes + 1 - m_errorBody.size()));
        if (m_errorBody.size() > ServerErrorBody::kMaxBodyBytes)
            reportRefusal();
        return;
    }
    if (!m_streaming)
        return;
    deliver(m_reply->readAll());
}

void SpeechStream::onFinished()
{
    if (!m_reply)
        return;
    if (!m_headSeen)
        onMetaDataChanged();
    if (!m_reply)
        return;
    if (m_chosenServer && m_headSeen && !m_streaming) {
        reportRefusal();
        return;
    }
    if (m_streaming) {
        onReadyRead();
        if (!m_reply)
            return;
    }
    const bool streaming = m_streaming;
    m_cutOff = streaming && m_reply->error() != QNetworkReply::NoError;
    tearDown();
    if (streaming && m_audio) {
        const QByteArray rest = m_audio->finish();
        if (!rest.isEmpty())
            Q_EMIT dataReceived(rest);
        if (const std::optional<QString> failure = m_audio->failure()) {
            Q_EMIT audioUnplayable(*failure);
            return;
        }
    }
    if (streaming)
        Q_EMIT bodyFinished();
    else
        Q_EMIT failedBeforeHead();
}
