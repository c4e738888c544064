// SPDX-License-Identifier: GPL-3.0-or-later
#include "DevServer.h"

#include <QDeadlineTimer>
#include <QEventLoop>
#include <QFile>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QRegularExpression>
#include <QTest>

#include <memory>

DevServer::DevServer(const QString &program)
    : m_program(program.isEmpty() ? QStringLiteral(QUILLVOX_DEVSERVER) : program)
{}

DevServer::~DevServer()
{
    if (isRunning())
        stop();
}

bool DevServer::start(const QStringList &arguments, std::chrono::milliseconds timeout)
{
    if (isRunning())
        return fail(QStringLiteral("the server is already running"));
    if (!m_dir.isValid())
        return fail(QStringLiteral("no temporary folder: ") + m_dir.errorString());
    m_port = 0;
    m_error.clear();

    // A file rather than a pipe: nobody reads a pipe while a test blocks, and a full one would stall
    // the server.
    m_process.setStandardErrorFile(m_dir.filePath(QStringLiteral("stderr.txt")));
    m_process.start(m_program, QStringList{"--port", "0", "--log", logPath()} + arguments);

    const QDeadlineTimer deadline(timeout);
    if (!m_process.waitForStarted(static_cast<int>(deadline.remainingTime())))
        return fail(QStringLiteral("cannot start %1: %2").arg(m_program, m_process.errorString()));
    while (!m_process.canReadLine()) {
        if (m_process.state() == QProcess::NotRunning) {
            return fail(QStringLiteral("%1 exited with code %2 before listening: %3")
                            .arg(m_program)
                            .arg(m_process.exitCode())
                            .arg(standardError().trimmed()));
        }
        if (deadline.hasExpired()) {
            m_process.kill();
            m_process.waitForFinished();
            return fail(QStringLiteral("%1 printed no \"listening on\" line within %2 ms: %3")
                            .arg(m_program)
                            .arg(timeout.count())
                            .arg(standardError().trimmed()));
        }
        m_process.waitForReadyRead(static_cast<int>(std::max<qint64>(deadline.remainingTime(), 1)));
    }

    const QString line = QString::fromUtf8(m_process.readLine()).trimmed();
    static const QRegularExpression listening(QStringLiteral("^listening on http://127\\.0\\.0\\.1:(\\d+)$"));
    const QRegularExpressionMatch match = listening.match(line);
    const uint port = match.hasMatch() ? match.captured(1).toUInt() : 0;
    if (port == 0 || port > 65535) {
        stop();
        return fail(QStringLiteral("unexpected first line from %1: \"%2\"").arg(m_program, line));
    }
    m_port = static_cast<quint16>(port);
    return true;
}

int DevServer::stop(std::chrono::milliseconds timeout)
{
    if (!isRunning())
        return -1;
    m_process.terminate();
    if (!m_process.waitForFinished(static_cast<int>(timeout.count()))) {
        m_process.kill();
        m_process.waitForFinished();
        return -1;
    }
    return m_process.exitStatus() == QProcess::NormalExit ? m_process.exitCode() : -1;
}

bool DevServer::isRunning() const
{
    return m_process.state() != QProcess::NotRunning;
}

QString DevServer::standardError() const
{
    QFile file(m_dir.filePath(QStringLiteral("stderr.txt")));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

QUrl DevServer::url() const
{
    return QUrl(QStringLiteral("http://127.0.0.1:%1").arg(m_port));
}

QUrl DevServer::url(const QString &pathAndQuery) const
{
    return url().resolved(QUrl(pathAndQuery));
}

QString DevServer::logPath() const
{
    return m_dir.filePath(QStringLiteral("requests.jsonl"));
}

QList<QJsonObject> DevServer::requests() const
{
    QList<QJsonObject> records;
    QFile file(logPath());
    if (!file.open(QIODevice::ReadOnly))
        return records;
    while (!file.atEnd()) {
        const QByteArray line = file.readLine().trimmed();
        if (line.isEmpty())
            continue;
        QJsonParseError error;
        const QJsonDocument document = QJsonDocument::fromJson(line, &error);
        if (!document.isObject()) {
            qWarning("DevServer: unreadable log line (%s): %s", qPrintable(error.errorString()),
                     line.constData());
            continue;
        }
        records.append(document.object());
    }
    return records;
}

QList<QJsonObject> DevServer::waitForRequests(qsizetype count, std::chrono::milliseconds timeout) const
{
    const QDeadlineTimer deadline(timeout);
    QList<QJsonObject> records = requests();
    while (records.size() < count && !deadline.hasExpired()) {
        QTest::qWait(10);
        records = requests();
    }
    return records;
}

QString DevServer::header(const QJsonObject &record, QStringView name)
{
    const QJsonObject headers = record.value(QLatin1String("headers")).toObject();
    for (auto it = headers.begin(); it != headers.end(); ++it) {
        if (it.key().compare(name, Qt::CaseInsensitive) == 0)
            return it.value().toString();
    }
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

QProcessEnvironment DevServer::appEnvironment(QProcessEnvironment base) const
{
    for (const char *origin : {"QUILLVOX_OPENAI_ORIGIN", "QUILLVOX_SERVICE_ORIGIN", "QUILLVOX_AUTH_ORIGIN"})
        base.insert(QString::fromLatin1(origin), url().toString());
    base.insert(QStringLiteral("QUILLVOX_AUTH_ANON_KEY"), QStringLiteral("quillvox-dev-anon-key"));
    return base;
}

QString DevServer::setOwnKey(const QString &app, const QProcessEnvironment &env)
{
    QProcess setKey;
    setKey.setProcessEnvironment(env);
    setKey.start(app, {QStringLiteral("--set-api-key")});
    setKey.write("local\n");
    setKey.closeWriteChannel();
    if (!setKey.waitForFinished(30000)) {
        setKey.kill();
        setKey.waitForFinished();
        return app + QStringLiteral(" --set-api-key did not finish");
    }
    if (setKey.exitStatus() != QProcess::NormalExit || setKey.exitCode() != 0)
        return app + QStringLiteral(" --set-api-key failed: ") +
               QString::fromUtf8(setKey.readAllStandardError()).trimmed();
    return {};
}

QJsonObject DevServer::control(const QString &path, const QJsonObject &body) const
{
    QNetworkAccessManager network;
    QNetworkRequest request(url(path));
    request.setTransferTimeout(5000);
    QNetworkReply *reply = nullptr;
    if (body.isEmpty()) {
        reply = network.get(request);
    } else {
        request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
        reply = network.post(request, QJsonDocument(body).toJson(QJsonDocument::Compact));
    }
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    if (!reply->isFinished())
        loop.exec();
    const QByteArray answer = reply->readAll();
    const bool ok = reply->error() == QNetworkReply::NoError;
    delete reply;
    return ok ? QJsonDocument::fromJson(answer).object() : QJsonObject();
}

QUrl DevServer::redirectOf(const QUrl &target)
{
    QNetworkAccessManager network;
    QNetworkRequest request(target);
    request.setTransferTimeout(5000);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    std::unique_ptr<QNetworkReply> reply(network.get(request));
    QEventLoop loop;
    QObject::connect(reply.get(), &QNetworkReply::finished, &loop, &QEventLoop::quit);
    if (!reply->isFinished())
        loop.exec();
    const QByteArray location = reply->rawHeader("Location");
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
