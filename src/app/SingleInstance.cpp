// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/SingleInstance.h"

#include "core/Logging.h"

#include <QCryptographicHash>
#include <QDir>
#include <QJsonDocument>
#include <QLocalServer>
#include <QLocalSocket>
#include <QStandardPaths>

namespace {

constexpr qint64 kMaxRequestBytes = 1 << 20; // a text to speak can be long, but not unbounded

QByteArray encode(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
}

} // namespace

SingleInstance::SingleInstance(QObject *parent)
    : QObject(parent)
{}

SingleInstance::~SingleInstance() = default;

QString SingleInstance::socketPath()
{
    QString runtime = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    if (runtime.isEmpty())
        runtime = QDir::tempPath();
    // A demo or test profile (its own config folder) runs beside the user's real instance.
    const QByteArray profile =
        QCryptographicHash::hash(
            QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation).toUtf8(),
            QCryptographicHash::Sha1)
            .toHex()
            .left(10);
    return runtime + QStringLiteral("/quillvox-") + QString::fromLatin1(profile) + QStringLiteral(".sock");
}

bool SingleInstance::listen(Handler handler)
{
    m_handler = std::move(handler);
    m_server = new QLocalServer(this);
    m_server->setSocketOptions(QLocalServer::UserAccessOption);
    const QString path = socketPath();
    if (!m_server->listen(path)) {
        if (send(QStringLiteral("ping"), {}, 1000))
            return false; // another instance is alive
        // Left behind by a crash: nobody answers there any more.
        QLocalServer::removeServer(path);
        if (!m_server->listen(path)) {
            qCWarning(lcApp) << "cannot listen on" << path << m_server->errorString();
            return false;
        }
    }
    connect(m_server, &QLocalServer::newConnection, this, &SingleInstance::onNewConnection);
    return true;
}

void SingleInstance::onNewConnection()
{
    while (QLocalSocket *socket = m_server->nextPendingConnection()) {
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        connect(socket, &QLocalSocket::readyRead, this, [this, socket] {
            if (!socket->canReadLine()) {
                if (socket->bytesAvailable() > kMaxRequestBytes)
                    socket->abort();
                return;
            }
            const QByteArray line = socket->readLine(kMaxRequestBytes);
            QJsonParseError error{};
            const QJsonDocument doc = QJsonDocument::fromJson(line, &error);
            const QJsonObject request = doc.object();
            if (error.error != QJsonParseError::NoError || !doc.isObject() ||
                !request.value(QStringLiteral("command")).isString()) {
                socket->abort(); // garbage: drop it
                return;
            }
            const QString command = request.value(QStringLiteral("command")).toString();
            QJsonObject reply{{QStringLiteral("ok"), true}};
            if (command != u"ping" && m_handler)
                reply = m_handler(command, request.value(QStringLiteral("argument")).toString());
            socket->write(encode(reply));
            socket->disconnectFromServer();
        });
    }
}

std::optional<QJsonObject> SingleInstance::send(const QString &command, const QString &argument,
                                                int timeoutMs)
{
    QLocalSocket socket;
    socket.connectToServer(socketPath());
    if (!socket.waitForConnected(timeoutMs))
        return std::nullopt;
    socket.write(encode({{QStringLiteral("command"), command}, {QStringLiteral("argument"), argument}}));
    if (!socket.waitForBytesWritten(timeoutMs))
        return std::nullopt;
    QByteArray line;
    while (!socket.canReadLine()) {
        if (!socket.waitForReadyRead(timeoutMs))
            return std::nullopt;
    }
    line = socket.readLine(kMaxRequestBytes);
    const QJsonDocument doc = QJsonDocument::fromJson(line);
    if (!doc.isObject())
        return std::nullopt;
    return doc.object();
}
