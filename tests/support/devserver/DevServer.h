// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QUrl>
#include <QUrlQuery>

#include <chrono>

// One quillvox-devserver process for a test: started on a free loopback port with its request log in a
// temporary folder, stopped with SIGTERM when the object goes out of scope.
class DevServer
{
public:
    DevServer() = default;
    ~DevServer();
    DevServer(const DevServer &) = delete;
    DevServer &operator=(const DevServer &) = delete;

    // Waits up to 10 s for its "listening on" line; false, with errorString() saying why, otherwise.
    bool start(const QStringList &arguments = {});

    // SIGTERM; the exit code, or -1 when it crashed, was not running or had to be killed after `timeout`
    // (an instrumented one takes longer).
    int stop(std::chrono::milliseconds timeout = std::chrono::seconds(5));

    QString errorString() const { return m_error; }
    QString standardError() const;

    QUrl url() const;
    QUrl url(const QString &pathAndQuery) const;

    // One JSON object per finished exchange, in the order the responses ended: method, path, query,
    // headers (an object, names as sent, a repeated header folded into one comma-separated value),
    // body, status (0 when dropped unanswered), bodyBytesSent (bytes of body written), time,
    // receivedMs (when the request had arrived whole, ms since the epoch).
    QList<QJsonObject> requests() const { return requests(logPath()); }
    static QList<QJsonObject> requests(const QString &logPath);
    // A response's log line lands just after its last byte, so a client may finish first: wait (running
    // the event loop) until at least count records are there or the timeout passes.
    QList<QJsonObject> waitForRequests(qsizetype count,
                                       std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;
    // By case-insensitive name; a null string when it was not sent.
    static QString header(const QJsonObject &record, QStringView name);
    static QJsonObject body(const QJsonObject &record);
    // The text a speech request asked for.
    static QString input(const QJsonObject &record);
    QStringList narratedTexts(QStringView path = u"/v1/audio/speech") const
    {
        return narratedTexts(requests(), path);
    }
    static QStringList narratedTexts(const QList<QJsonObject> &requests, QStringView path);

    // `base` with every origin the app talks to (speech, the account service, sign-in) at this server,
    // and its anon key: the app's traffic stays on loopback.
    QProcessEnvironment
    appEnvironment(QProcessEnvironment base = QProcessEnvironment::systemEnvironment()) const;

    // A /dev/ control route: POSTs body when it is not empty, GETs otherwise; an empty object on failure.
    QJsonObject control(const QString &path, const QJsonObject &body = {}) const;

    // Empty when `url` does not redirect.
    static QUrl redirectOf(const QUrl &url);
    // Signs in as the sign-in page's button does, with no --auto-consent needed: the items of the
    // redirect's fragment (access_token, refresh_token, ...).
    QUrlQuery signIn() const;

private:
    bool fail(const QString &why);
    QString logPath() const;

    QTemporaryDir m_dir;
    QProcess m_process;
    quint16 m_port = 0;
    QString m_scheme = QStringLiteral("http");
    QString m_error;
};
