// SPDX-License-Identifier: GPL-3.0-or-later
#include "DevServer.h"
#include "StopProcess.h"

#include <QEventLoop>
#include <QFile>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QRegularExpression>
#include <QTest>

#include <memory>
#include <optional>

static const QString program = QStringLiteral(QUILLVOX_DEVSERVER);

DevServer::~DevServer()
{
    stop();
}

bool DevServer::start(const QStringList &arguments)
{
    if (m_process.state() != QProcess::NotRunning)
        return fail(QStringLiteral("the server is already running"));
    if (!m_dir.isValid())
        return fail(QStringLiteral("no temporary folder: ") + m_dir.errorString());
    m_port = 0;
    m_error.clear();

    // A file rather than a pipe: nobody reads a pipe while a test blocks, and a full one would stall
    // the server.
    m_process.setStandardErrorFile(m_dir.filePath(QStringLiteral("stderr.txt")));
    m_process.start(program, QStringList{"--port", "0", "--log", logPath()} + arguments);

    (void)QTest::qWaitFor(
        [&] { return m_process.canReadLine() || m_process.state() == QProcess::NotRunning; }, 10000);
    const QString line = QString::fromUtf8(m_process.readLine()).trimmed();
    static const QRegularExpression listening(
        QStringLiteral("^listening on (https?)://127\\.0\\.0\\.1:(\\d+)$"));
    const QRegularExpressionMatch match = listening.match(line);
    const uint port = match.hasMatch() ? match.captured(2).toUInt() : 0;
    if (port == 0 || port > 65535) {
        stop();
        return fail(QStringLiteral("%1 is not listening (%2, first line \"%3\"): %4")
                        .arg(program, m_process.errorString(), line, standardError().trimmed()));
    }
    m_port = static_cast<quint16>(port);
    m_scheme = match.captured(1);
    return true;
}

int DevServer::stop(std::chrono::milliseconds timeout)
{
    return stopProcess(m_process, int(timeout.count())); // -1 when it was not running
}

QString DevServer::standardError() const
{
    QFile file(m_dir.filePath(QStringLiteral("stderr.txt")));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

QUrl DevServer::url() const
{
    return QUrl(QStringLiteral("%1://127.0.0.1:%2").arg(m_scheme).arg(m_port));
}

QUrl DevServer::url(const QString &pathAndQuery) const
{
    return url().resolved(QUrl(pathAndQuery));
}

QString DevServer::logPath() const
{
    return m_dir.filePath(QStringLiteral("requests.jsonl"));
}

QList<QJsonObject> DevServer::requests(const QString &logPath)
{
    QList<QJsonObject> records;
    QFile file(logPath);
    if (!file.open(QIODevice::ReadOnly))
        return records;
    for (const QByteArray &line : file.readAll().split('\n')) {
        if (const QJsonDocument document = QJsonDocument::fromJson(line); document.isObject())
            records.append(document.object());
        else if (!line.isEmpty())
            qWarning("DevServer: unreadable log line: %s", line.constData());
    }
    return records;
}

QList<QJsonObject> DevServer::waitForRequests(qsizetype count, std::chrono::milliseconds timeout) const
{
    QList<QJsonObject> records;
    (void)QTest::qWaitFor([&] { return (records = requests()).size() >= count; }, int(timeout.count()));
    return records;
}

QString DevServer::header(const QJsonObject &record, QStringView name)
{
    const QJsonObject headers = record.value(QLatin1String("headers")).toObject();
    for (auto it = headers.begin(); it != headers.end(); ++it)
        if (it.key().compare(name, Qt::CaseInsensitive) == 0)
            return it.value().toString();
    return {};
}

QJsonObject DevServer::body(const QJsonObject &record)
{
    return QJsonDocument::fromJson(record.value(QLatin1String("body")).toString().toUtf8()).object();
}

QString DevServer::input(const QJsonObject &record)
{
    return body(record).value(QLatin1String("input")).toString();
}

QStringList DevServer::narratedTexts(const QList<QJsonObject> &requests, QStringView path)
{
    QStringList texts;
    for (const QJsonObject &record : requests)
        if (record.value(QLatin1String("path")).toString() == path)
            texts.append(input(record));
    return texts;
}

QProcessEnvironment DevServer::appEnvironment(QProcessEnvironment base) const
{
    for (const char *origin : {"QUILLVOX_OPENAI_ORIGIN", "QUILLVOX_SERVICE_ORIGIN", "QUILLVOX_AUTH_ORIGIN"})
        base.insert(QString::fromLatin1(origin), url().toString());
    base.insert(QStringLiteral("QUILLVOX_AUTH_ANON_KEY"), QStringLiteral("quillvox-dev-anon-key"));
    return base;
}

// A GET, or a POST of body, run to its end in a local event loop.
static std::unique_ptr<QNetworkReply> exchange(QNetworkAccessManager &network, QNetworkRequest request,
                                               const std::optional<QByteArray> &body = std::nullopt)
{
    request.setTransferTimeout(5000);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    std::unique_ptr<QNetworkReply> reply(body ? network.post(request, *body) : network.get(request));
    QEventLoop loop;
    QObject::connect(reply.get(), &QNetworkReply::finished, &loop, &QEventLoop::quit);
    if (!reply->isFinished())
        loop.exec();
    return reply;
}

QJsonObject DevServer::control(const QString &path, const QJsonObject &body) const
{
    QNetworkAccessManager network;
    const auto reply = exchange(
        network, QNetworkRequest(url(path)),
        body.isEmpty() ? std::nullopt : std::optional(QJsonDocument(body).toJson(QJsonDocument::Compact)));
    return reply->error() == QNetworkReply::NoError ? QJsonDocument::fromJson(reply->readAll()).object()
                                                    : QJsonObject();
}

QUrl DevServer::redirectOf(const QUrl &target)
{
    QNetworkAccessManager network;
    const QByteArray location = exchange(network, QNetworkRequest(target))->rawHeader("Location");
    return location.isEmpty() ? QUrl() : target.resolved(QUrl(QString::fromUtf8(location)));
}

QUrlQuery DevServer::signIn() const
{
    const QByteArray callback = QUrl::toPercentEncoding(url(QStringLiteral("/auth/app-callback")).toString());
    const QUrl redirect =
        redirectOf(url(QStringLiteral("/auth/v1/consent?redirect_to=") + QString::fromLatin1(callback)));
    return QUrlQuery(redirect.fragment(QUrl::FullyEncoded));
}

bool DevServer::fail(const QString &why)
{
    m_error = why;
    return false;
}
