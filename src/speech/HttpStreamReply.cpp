// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/HttpStreamReply.h"

#include <QCoreApplication>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QSslConfiguration>
#include <QSslSocket>

#include <cstring>
#include <optional>

namespace {

bool breaksLines(QByteArrayView text)
{
    return text.contains('\r') || text.contains('\n') || text.contains('\0');
}

QNetworkReply::NetworkError replyError(QAbstractSocket::SocketError error)
{
    switch (error) {
    case QAbstractSocket::ConnectionRefusedError:
        return QNetworkReply::ConnectionRefusedError;
    case QAbstractSocket::RemoteHostClosedError:
        return QNetworkReply::RemoteHostClosedError;
    case QAbstractSocket::HostNotFoundError:
        return QNetworkReply::HostNotFoundError;
    case QAbstractSocket::SocketTimeoutError:
        return QNetworkReply::TimeoutError;
    case QAbstractSocket::SslHandshakeFailedError:
    case QAbstractSocket::SslInternalError:
    case QAbstractSocket::SslInvalidUserDataError:
        return QNetworkReply::SslHandshakeFailedError;
    default:
        return QNetworkReply::UnknownNetworkError;
    }
}

// The request as it goes on the wire, or nothing when a header would break its lines.
std::optional<QByteArray> requestBytes(const QNetworkRequest &request, const QByteArray &body)
{
    QUrl url = request.url();
    if (url.path().isEmpty())
        url.setPath(QStringLiteral("/")); // "http://host?q" asks for "/?q"
    const QByteArray target =
        url.toEncoded(QUrl::RemoveScheme | QUrl::RemoveAuthority | QUrl::RemoveFragment);
    QByteArray head = "POST " + target + " HTTP/1.1\r\nHost: " +
                      url.authority(QUrl::FullyEncoded | QUrl::RemoveUserInfo).toLatin1() + "\r\n";
    bool userAgent = false;
    for (const QByteArray &name : request.rawHeaderList()) {
        const auto is = [&name](const char *other) { return HttpResponseParser::sameName(name, other); };
        if (is("Host") || is("Content-Length") || is("Connection") || is("Transfer-Encoding"))
            continue; // the framing is this reply's own
        const QByteArray value = request.rawHeader(name);
        if (breaksLines(name) || breaksLines(value))
            return std::nullopt;
        userAgent = userAgent || is("User-Agent");
        head += name + ": " + value + "\r\n";
    }
    if (!userAgent)
        head += "User-Agent: Quillvox/" + QCoreApplication::applicationVersion().toLatin1() + "\r\n";
    // Audio does not compress, and a coded body could not be read as it arrives.
    head += "Accept-Encoding: identity\r\nContent-Length: " + QByteArray::number(body.size()) +
            "\r\nConnection: close\r\n\r\n";
    return head + body;
}

} // namespace

QNetworkReply *HttpStreamReply::post(QNetworkAccessManager &network, const QNetworkRequest &request,
                                     const QByteArray &body)
{
    if (!canCarry(network, request))
        return network.post(request, body);
    QNetworkRequest carried = request;
    if (carried.transferTimeout() == 0) // the manager's applies to requests without their own
        carried.setTransferTimeout(network.transferTimeout());
    return new HttpStreamReply(carried, body, &network);
}

bool HttpStreamReply::canCarry(const QNetworkAccessManager &network, const QNetworkRequest &request)
{
    const QUrl url = request.url();
    const bool tls = url.scheme() == QLatin1String("https");
    if ((!tls && url.scheme() != QLatin1String("http")) || url.host().isEmpty() || !url.userInfo().isEmpty())
        return false;
    if (tls && !QSslSocket::supportsSsl())
        return false;
    // The proxy QNetworkAccessManager would pick (none, unless the application or the system sets one).
    if (network.proxyFactory() || network.proxy().type() != QNetworkProxy::DefaultProxy)
        return false;
    const QList<QNetworkProxy> proxies = QNetworkProxyFactory::proxyForQuery(QNetworkProxyQuery(url));
    return proxies.isEmpty() || proxies.constFirst().type() == QNetworkProxy::NoProxy;
}

HttpStreamReply::HttpStreamReply(const QNetworkRequest &request, const QByteArray &body, QObject *parent)
    : QNetworkReply(parent)
    , m_timeoutMs(request.transferTimeout())
{
    setRequest(request);
    setUrl(request.url());
    setOperation(QNetworkAccessManager::PostOperation);
    open(QIODevice::ReadOnly | QIODevice::Unbuffered);

    m_timeout.setSingleShot(true);
    connect(&m_timeout, &QTimer::timeout, this, &HttpStreamReply::onTimer);
    const std::optional<QByteArray> bytes = requestBytes(request, body);
    if (!bytes) {
        QMetaObject::invokeMethod(
            this,
            [this] { finish(ProtocolInvalidOperationError, QStringLiteral("A header holds a line break")); },
            Qt::QueuedConnection);
        return;
    }
    m_requestBytes = *bytes;

    const QUrl url = request.url();
    const bool tls = url.scheme() == QLatin1String("https");
    if (tls) {
        auto *socket = new QSslSocket(this);
        QSslConfiguration config = request.sslConfiguration();
        config.setAllowedNextProtocols({QByteArray(QSslConfiguration::NextProtocolHttp1_1)});
        socket->setSslConfiguration(config);
        connect(socket, &QSslSocket::encrypted, this, &HttpStreamReply::sendRequest);
        connect(socket, &QSslSocket::sslErrors, this,
                [this](const QList<QSslError> &errors) { Q_EMIT sslErrors(errors); });
        m_socket = socket;
    } else {
        m_socket = new QTcpSocket(this);
        connect(m_socket, &QTcpSocket::connected, this, &HttpStreamReply::sendRequest);
    }
    m_socket->setProxy(QNetworkProxy::NoProxy);
    connect(m_socket, &QTcpSocket::readyRead, this, &HttpStreamReply::onReadable);
    connect(m_socket, &QTcpSocket::disconnected, this, &HttpStreamReply::onClosed);
    connect(m_socket, &QTcpSocket::errorOccurred, this, &HttpStreamReply::onSocketError);
    // A long upload is activity too.
    connect(m_socket, &QTcpSocket::bytesWritten, this, [this] { m_sinceActivity.start(); });

    m_sinceActivity.start();
    if (m_timeoutMs > 0)
        m_timeout.start(m_timeoutMs);
    // Started from the event loop: a socket can fail at once (an unreachable address literal), and
    // finished() must not come before the caller has connected to it.
    QMetaObject::invokeMethod(
        this,
        [this, tls, host = url.host(), port = quint16(url.port(tls ? 443 : 80))] {
            if (isFinished())
                return;
            if (tls)
                static_cast<QSslSocket *>(m_socket)->connectToHostEncrypted(host, port);
            else
                m_socket->connectToHost(host, port);
        },
        Qt::QueuedConnection);
}

HttpStreamReply::~HttpStreamReply()
{
    if (m_socket) {
        m_socket->disconnect(this);
        m_socket->abort();
    }
}

void HttpStreamReply::abort()
{
    if (isFinished())
        return;
    m_buffer.clear(); // as QNetworkAccessManager's: what was not read is gone
    m_bufferOffset = 0;
    finish(OperationCanceledError, QStringLiteral("Operation canceled"));
}

qint64 HttpStreamReply::bytesAvailable() const
{
    return m_buffer.size() - m_bufferOffset + QNetworkReply::bytesAvailable();
}

qint64 HttpStreamReply::readData(char *data, qint64 maxSize)
{
    const qint64 n = std::min<qint64>(maxSize, m_buffer.size() - m_bufferOffset);
    if (n <= 0)
        return isFinished() ? -1 : 0;
    std::memcpy(data, m_buffer.constData() + m_bufferOffset, size_t(n));
    m_bufferOffset += n;
    if (m_bufferOffset == m_buffer.size()) {
        m_buffer.resize(0);
        m_bufferOffset = 0;
    }
    return n;
}

void HttpStreamReply::sendRequest()
{
    m_socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    m_socket->write(std::exchange(m_requestBytes, QByteArray()));
}

void HttpStreamReply::onReadable()
{
    const QByteArray bytes = m_socket->readAll();
    if (bytes.isEmpty() || isFinished())
        return;
    m_sinceActivity.start();
    const bool hadHead = m_parser.hasHead();
    const qsizetype buffered = m_buffer.size();
    m_parser.feed(bytes, m_buffer);
    if (!hadHead && m_parser.hasHead()) {
        setAttribute(QNetworkRequest::HttpStatusCodeAttribute, m_parser.status());
        setAttribute(QNetworkRequest::HttpReasonPhraseAttribute, m_parser.reason());
        for (const auto &[name, value] : m_parser.headers())
            setRawHeader(name, hasRawHeader(name) ? rawHeader(name) + ", " + value : value);
        Q_EMIT metaDataChanged();
        if (isFinished())
            return; // the reader let go
    }
    if (m_buffer.size() > buffered) {
        Q_EMIT readyRead();
        if (isFinished())
            return;
    }
    if (m_parser.state() == HttpResponseParser::State::Done)
        finish(NoError);
    else if (m_parser.state() == HttpResponseParser::State::Failed)
        finish(ProtocolFailure,
               QStringLiteral("The server's answer is not HTTP: %1").arg(m_parser.failure()));
}

void HttpStreamReply::onClosed()
{
    if (isFinished())
        return;
    if (m_socket->bytesAvailable() > 0) {
        onReadable();
        if (isFinished())
            return;
    }
    if (m_parser.closed())
        finish(NoError);
    else
        finish(RemoteHostClosedError, QStringLiteral("Connection closed: %1").arg(m_parser.failure()));
}

void HttpStreamReply::onSocketError()
{
    if (isFinished())
        return;
    const QAbstractSocket::SocketError error = m_socket->error();
    if (error == QAbstractSocket::RemoteHostClosedError)
        return onClosed();
    if (m_socket->bytesAvailable() > 0) {
        onReadable(); // what came before the error may be the whole answer
        if (isFinished())
            return;
    }
    finish(replyError(error), m_socket->errorString());
}

void HttpStreamReply::onTimer()
{
    if (isFinished())
        return;
    const qint64 idle = m_sinceActivity.elapsed();
    if (idle < m_timeoutMs) {
        m_timeout.start(int(m_timeoutMs - idle)); // bytes came meanwhile: wait out the rest
        return;
    }
    finish(OperationCanceledError, QStringLiteral("Nothing came from the server for %1 ms").arg(m_timeoutMs));
}

void HttpStreamReply::finish(NetworkError error, const QString &text)
{
    if (isFinished())
        return;
    m_timeout.stop();
    if (m_socket) {
        m_socket->disconnect(this);
        m_socket->abort();
    }
    if (error != NoError)
        setError(error, text);
    setFinished(true);
    if (error != NoError)
        Q_EMIT errorOccurred(error);
    Q_EMIT finished();
}
