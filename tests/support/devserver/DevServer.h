// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QJsonObject>
#include <QList>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <QUrl>
#include <QUrlQuery>

#include <chrono>

// One quillvox-devserver process for a test: started on a free loopback port with its request log in a
// temporary folder, stopped with SIGTERM when the object goes out of scope.
//
//     DevServer server;
//     QVERIFY2(server.start({"--pace", "0"}), qPrintable(server.errorString()));
//     ... point the client at server.url() ...
//     const QList<QJsonObject> log = server.waitForRequests(1);
//     QCOMPARE(DevServer::header(log.first(), u"Authorization"), "Bearer local");
class DevServer
{
public:
    DevServer() = default;
    ~DevServer();
    DevServer(const DevServer &) = delete;
    DevServer &operator=(const DevServer &) = delete;

    // Starts the server built in this tree with "--port 0 --log <temporary file>" followed by arguments
    // and waits up to 10 s for its "listening on" line. False, with errorString() saying why, when the
    // process cannot be started, exits first or prints nothing in time.
    bool start(const QStringList &arguments = {});

    // Sends SIGTERM and returns the exit code; -1 when the server crashed, was not running, or had to
    // be killed because it did not exit within the timeout (an instrumented one takes longer).
    int stop(std::chrono::milliseconds timeout = std::chrono::seconds(5));

    QString errorString() const { return m_error; }
    // What the server wrote to standard error so far.
    QString standardError() const;

    // http://127.0.0.1:PORT
    QUrl url() const;
    // The server's URL with this path (and query), e.g. url("/health").
    QUrl url(const QString &pathAndQuery) const;
    quint16 port() const { return m_port; }

    // One JSON object per finished exchange, in the order the responses ended: method, path, query,
    // headers (an object, names as sent, a repeated header folded into one comma-separated value),
    // body, status (0 when dropped unanswered), bodyBytesSent (bytes of body written), time.
    QList<QJsonObject> requests() const { return requests(logPath()); }
    // The same of a server started elsewhere with "--log logPath".
    static QList<QJsonObject> requests(const QString &logPath);
    // A response's log line lands just after its last byte, so a client may finish first: wait (running
    // the event loop) until at least count records are there or the timeout passes.
    QList<QJsonObject> waitForRequests(qsizetype count,
                                       std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;
    // A header of a logged request by case-insensitive name; a null string when it was not sent.
    static QString header(const QJsonObject &record, QStringView name);
    // A logged request's body read as a JSON object; empty when it is not one.
    static QJsonObject body(const QJsonObject &record);
    // The "input" member of that body: the text a speech request asked for.
    static QString input(const QJsonObject &record);
    // The texts of the finished requests to `path`, in the order they ended.
    QStringList narratedTexts(QStringView path = u"/v1/audio/speech") const
    {
        return narratedTexts(requests(), path);
    }
    static QStringList narratedTexts(const QList<QJsonObject> &requests, QStringView path);

    // `base` with every origin the app talks to (speech, the account service, sign-in) at this server,
    // and its anon key: the app's traffic stays on loopback.
    QProcessEnvironment
    appEnvironment(QProcessEnvironment base = QProcessEnvironment::systemEnvironment()) const;

    // Talks to the server's /dev/ control routes: POSTs body when it is not empty, GETs otherwise, and
    // returns the JSON answer; an empty object when the request failed or the answer was not an object.
    //     server.control("/dev/balance", {{"seconds", 0}});
    //     server.control("/dev/state").value("refreshes").toInt();
    QJsonObject control(const QString &path, const QJsonObject &body = {}) const;

    // Where a redirect at `url` points, as a browser would follow it; empty when it does not redirect.
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
