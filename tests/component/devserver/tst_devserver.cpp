// SPDX-License-Identifier: GPL-3.0-or-later
#include "DevServer.h"

#include <QDeadlineTimer>
#include <QHash>
#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QSet>
#include <QSignalSpy>
#include <QTcpSocket>
#include <QTest>
#include <QUrlQuery>

#include <algorithm>
#include <memory>
#include <optional>

using namespace std::chrono_literals;

namespace {

constexpr int bytesPerSecond = 48000; // 24 kHz, 16-bit mono
const QString openAIPath = QStringLiteral("/v1/audio/speech");
const QString servicePath = QStringLiteral("/api/tts/stream");
const QByteArray defaultKey = "Bearer local";
const QByteArray jsonType = "application/json; charset=utf-8";
const QStringList allVoices = {"marin", "cedar", "alloy", "echo", "fable", "nova", "onyx", "shimmer"};

QByteArray speechBody(const QString &input, const QString &voice = QStringLiteral("alloy"))
{
    const QJsonObject body{{"model", "gpt-4o-mini-tts"},
                           {"input", input},
                           {"voice", voice},
                           {"response_format", "pcm"},
                           {"instructions", "Speak plainly."}};
    return QJsonDocument(body).toJson(QJsonDocument::Compact);
}

struct HttpResult
{
    // 0 when no response head arrived.
    int status = 0;
    QByteArray body;
    QByteArray contentType;
    QByteArray location;
    QNetworkReply::NetworkError error = QNetworkReply::NoError;
};

HttpResult send(QNetworkAccessManager &network, const QUrl &url, const std::optional<QByteArray> &body,
                const std::optional<QByteArray> &authorization = defaultKey,
                const QList<QPair<QByteArray, QByteArray>> &extraHeaders = {})
{
    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    if (authorization)
        request.setRawHeader("Authorization", *authorization);
    for (const auto &[name, value] : extraHeaders)
        request.setRawHeader(name, value);
    QNetworkReply *reply = nullptr;
    if (body) {
        request.setHeader(QNetworkRequest::ContentTypeHeader, "application/json");
        reply = network.post(request, *body);
    } else {
        reply = network.get(request);
    }
    const std::unique_ptr<QNetworkReply> owner(reply);
    QSignalSpy finished(reply, &QNetworkReply::finished);
    if (!reply->isFinished() && !finished.wait(20000))
        reply->abort();
    HttpResult result;
    result.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    result.body = reply->readAll();
    result.contentType = reply->header(QNetworkRequest::ContentTypeHeader).toByteArray();
    result.location = reply->rawHeader("Location");
    result.error = reply->error();
    return result;
}

QJsonObject jsonError(const HttpResult &result)
{
    return QJsonDocument::fromJson(result.body).object().value("error").toObject();
}

QList<qint16> samplesOf(const QByteArray &pcm)
{
    QList<qint16> samples;
    samples.reserve(pcm.size() / 2);
    for (qsizetype i = 0; i + 1 < pcm.size(); i += 2) {
        const auto low = static_cast<quint8>(pcm[i]);
        const auto high = static_cast<quint8>(pcm[i + 1]);
        samples.append(static_cast<qint16>(static_cast<quint16>(low | (high << 8))));
    }
    return samples;
}

double seconds(const QByteArray &pcm)
{
    return static_cast<double>(pcm.size()) / bytesPerSecond;
}

// A response as it came off the socket, so that a body without its terminating chunk can be seen.
struct RawResponse
{
    QByteArray statusLine;
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray body;
    bool bodyComplete = false;
    bool closedByServer = false;
    qsizetype bytesReceived = 0;

    QByteArray header(const QByteArray &name) const
    {
        for (const auto &[key, value] : headers) {
            if (key.compare(name, Qt::CaseInsensitive) == 0)
                return value;
        }
        return {};
    }
};

void decodeChunked(const QByteArray &data, RawResponse &response)
{
    qsizetype position = 0;
    while (true) {
        const qsizetype lineEnd = data.indexOf("\r\n", position);
        if (lineEnd < 0)
            return;
        bool ok = false;
        const qsizetype size =
            data.mid(position, lineEnd - position).split(';').first().trimmed().toLongLong(&ok, 16);
        if (!ok)
            return;
        position = lineEnd + 2;
        if (size == 0) {
            response.bodyComplete = data.indexOf("\r\n", position) >= 0;
            return;
        }
        const QByteArray piece = data.mid(position, size);
        response.body += piece;
        if (piece.size() < size || data.mid(position + size, 2) != "\r\n")
            return;
        position += size + 2;
    }
}

RawResponse parseRaw(const QByteArray &bytes)
{
    RawResponse response;
    response.bytesReceived = bytes.size();
    const qsizetype headEnd = bytes.indexOf("\r\n\r\n");
    if (headEnd < 0)
        return response;
    const QList<QByteArray> lines = bytes.left(headEnd).split('\n');
    response.statusLine = lines.first().trimmed();
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const qsizetype colon = lines[i].indexOf(':');
        if (colon > 0)
            response.headers.append({lines[i].left(colon).trimmed(), lines[i].mid(colon + 1).trimmed()});
    }
    const QByteArray rest = bytes.mid(headEnd + 4);
    if (response.header("Transfer-Encoding").compare("chunked", Qt::CaseInsensitive) == 0) {
        decodeChunked(rest, response);
    } else {
        response.body = rest;
        response.bodyComplete = rest.size() == response.header("Content-Length").toLongLong();
    }
    return response;
}

QByteArray rawPost(const QString &path, const QByteArray &body, const QByteArray &authorization = defaultKey)
{
    return "POST " + path.toUtf8() + " HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: " + authorization +
           "\r\nConnection: close\r\nContent-Type: application/json\r\nContent-Length: " +
           QByteArray::number(body.size()) + "\r\n\r\n" + body;
}

// Sends one request and reads until the server closes the connection (or the timeout passes).
RawResponse rawExchange(quint16 port, const QByteArray &request, std::chrono::milliseconds timeout = 15s)
{
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, port);
    if (!socket.waitForConnected(5000))
        return {};
    socket.write(request);
    QByteArray received;
    const QDeadlineTimer deadline(timeout);
    while (socket.state() == QAbstractSocket::ConnectedState && !deadline.hasExpired()) {
        socket.waitForReadyRead(static_cast<int>(std::max<qint64>(deadline.remainingTime(), 1)));
        received += socket.readAll();
    }
    received += socket.readAll();
    RawResponse response = parseRaw(received);
    response.closedByServer = socket.state() != QAbstractSocket::ConnectedState;
    return response;
}

// Counts sign changes: a pure tone of f Hz crosses zero 2f times a second.
double zeroCrossingHz(const QList<qint16> &samples)
{
    qsizetype crossings = 0;
    for (qsizetype i = 1; i < samples.size(); ++i) {
        if ((samples[i - 1] < 0) != (samples[i] < 0))
            ++crossings;
    }
    return crossings / 2.0 / (static_cast<double>(samples.size()) / 24000.0);
}

const QByteArray anonKey = "quillvox-dev-anon-key";
const QString appCallback = QStringLiteral("quillvox://auth/callback");
constexpr auto base64url = QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals;

QJsonObject jsonOf(const HttpResult &result)
{
    return QJsonDocument::fromJson(result.body).object();
}

// The session a sign-in redirect carries in its fragment.
QUrlQuery fragmentOf(const HttpResult &redirect)
{
    return QUrlQuery(QUrl::fromEncoded(redirect.location).fragment(QUrl::FullyEncoded));
}

QString itemOf(const QUrlQuery &query, const QString &key)
{
    return query.queryItemValue(key, QUrl::FullyDecoded);
}

QByteArray encodedJson(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact).toBase64(base64url);
}

QJsonObject decodedJson(const QByteArray &part)
{
    return QJsonDocument::fromJson(QByteArray::fromBase64(part, base64url)).object();
}

} // namespace

class TestDevServer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void openAIAuthorisation_data();
    void openAIAuthorisation();
    void serviceAuthorisation_data();
    void serviceAuthorisation();
    void bodyValidation_data();
    void bodyValidation();
    void speechLengthFollowsText_data();
    void speechLengthFollowsText();
    void voicesDiffer();
    void sineTone_data();
    void sineTone();
    void pacingKeepsTheAudio_data();
    void pacingKeepsTheAudio();
    void failStatus_data();
    void failStatus();
    void cutAfter_data();
    void cutAfter();
    void dropBeforeHead();
    void logRecordsTheExchange_data();
    void logRecordsTheExchange();
    void concurrentRequestsGetTheirOwnAudio();
    void slowStreamDoesNotHoldUpOthers();
    void exitsCleanlyOnSigterm_data();
    void exitsCleanlyOnSigterm();
    void health_data();
    void health();
    void failsToStartClearly_data();
    void failsToStartClearly();
    void busyPortFailsToStart_data();
    void busyPortFailsToStart();
    void signInRedirect_data();
    void signInRedirect();
    void refreshRotates_data();
    void refreshRotates();
    void refreshRefused_data();
    void refreshRefused();
    void accessTokenChecks_data();
    void accessTokenChecks();
    void accountEndpoints_data();
    void accountEndpoints();
    void tokenExchange_data();
    void tokenExchange();
    void serviceStreamCharges_data();
    void serviceStreamCharges();

private:
    std::optional<QByteArray> credentials(const DevServer &server, const QString &path)
    {
        if (path == openAIPath)
            return defaultKey;
        return "Bearer " + itemOf(server.signIn(), "access_token").toUtf8();
    }
    HttpResult refresh(const DevServer &server, const QString &refreshToken)
    {
        return send(m_network, server.url("/auth/v1/token?grant_type=refresh_token"),
                    QJsonDocument(QJsonObject{{"refresh_token", refreshToken}}).toJson(), "Bearer " + anonKey,
                    {{"apikey", anonKey}});
    }
    HttpResult user(const DevServer &server, const QString &accessToken)
    {
        return send(m_network, server.url("/auth/v1/user"), std::nullopt, "Bearer " + accessToken.toUtf8(),
                    {{"apikey", anonKey}});
    }

    QNetworkAccessManager m_network;
};

void TestDevServer::openAIAuthorisation_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<std::optional<QByteArray>>("authorization");
    QTest::addColumn<int>("status");

    const std::optional<QByteArray> none;
    QTest::newRow("no header") << QStringList() << none << 401;
    QTest::newRow("empty bearer") << QStringList() << std::optional<QByteArray>("Bearer ") << 401;
    QTest::newRow("wrong key") << QStringList() << std::optional<QByteArray>("Bearer nope") << 401;
    QTest::newRow("key as prefix") << QStringList() << std::optional<QByteArray>("Bearer locally") << 401;
    QTest::newRow("other scheme") << QStringList() << std::optional<QByteArray>("Basic local") << 401;
    QTest::newRow("default key") << QStringList() << std::optional<QByteArray>(defaultKey) << 200;
    QTest::newRow("scheme in lower case")
        << QStringList() << std::optional<QByteArray>("bearer local") << 200;
    QTest::newRow("chosen key") << QStringList{"--openai-key", "s3cret"}
                                << std::optional<QByteArray>("Bearer s3cret") << 200;
    QTest::newRow("default key when another is chosen")
        << QStringList{"--openai-key", "s3cret"} << std::optional<QByteArray>(defaultKey) << 401;
}

void TestDevServer::openAIAuthorisation()
{
    QFETCH(QStringList, arguments);
    QFETCH(std::optional<QByteArray>, authorization);
    QFETCH(int, status);

    DevServer server;
    QVERIFY2(server.start(arguments + QStringList{"--pace", "0"}), qPrintable(server.errorString()));
    const HttpResult result = send(m_network, server.url(openAIPath), speechBody("Hi."), authorization);

    QCOMPARE(result.status, status);
    if (status == 401) {
        QCOMPARE(result.contentType, jsonType);
        QVERIFY(!jsonError(result).value("message").toString().isEmpty());
    } else {
        QCOMPARE(result.contentType, "audio/pcm");
        QVERIFY(!result.body.isEmpty());
    }
}

void TestDevServer::serviceAuthorisation_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<std::optional<QByteArray>>("authorization");
    QTest::addColumn<int>("status");

    QTest::newRow("no header") << QStringList() << std::optional<QByteArray>() << 401;
    QTest::newRow("empty bearer") << QStringList() << std::optional<QByteArray>("Bearer ") << 401;
    QTest::newRow("blank bearer") << QStringList() << std::optional<QByteArray>("Bearer    ") << 401;
    QTest::newRow("other scheme") << QStringList() << std::optional<QByteArray>("Basic abc") << 401;
    QTest::newRow("unsigned token") << QStringList() << std::optional<QByteArray>("Bearer eyJ.any.token")
                                    << 401;
    QTest::newRow("the OpenAI key") << QStringList() << std::optional<QByteArray>(defaultKey) << 401;
}

void TestDevServer::serviceAuthorisation()
{
    QFETCH(QStringList, arguments);
    QFETCH(std::optional<QByteArray>, authorization);
    QFETCH(int, status);

    DevServer server;
    QVERIFY2(server.start(arguments + QStringList{"--pace", "0"}), qPrintable(server.errorString()));
    const HttpResult result = send(m_network, server.url(servicePath), speechBody("Hi."), authorization);

    QCOMPARE(result.status, status);
    if (status == 401)
        QVERIFY(!jsonError(result).value("message").toString().isEmpty());
    else
        QVERIFY(!result.body.isEmpty());
}

void TestDevServer::bodyValidation_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<int>("status");
    // The member the error names; empty when the body as a whole is at fault (JSON null).
    QTest::addColumn<QString>("param");

    const QJsonObject valid = QJsonDocument::fromJson(speechBody("Hi.")).object();
    const auto with = [&](const QString &member, const QJsonValue &value) {
        QJsonObject body = valid;
        if (value.isUndefined())
            body.remove(member);
        else
            body.insert(member, value);
        return QJsonDocument(body).toJson(QJsonDocument::Compact);
    };
    struct Case
    {
        const char *name;
        QByteArray body;
        int status;
        QString param;
    };
    const QJsonValue absent(QJsonValue::Undefined);
    const QList<Case> cases = {
        {"empty body", "", 400, {}},
        {"invalid JSON", "{\"model\": ", 400, {}},
        {"array", "[]", 400, {}},
        {"model missing", with("model", absent), 400, "model"},
        {"model a number", with("model", 4), 400, "model"},
        {"model null", with("model", QJsonValue::Null), 400, "model"},
        {"input missing", with("input", absent), 400, "input"},
        {"input an object", with("input", QJsonObject{{"text", "Hi."}}), 400, "input"},
        {"input empty", with("input", ""), 400, "input"},
        {"voice missing", with("voice", absent), 400, "voice"},
        {"voice an array", with("voice", QJsonArray{"alloy"}), 400, "voice"},
        {"response_format missing", with("response_format", absent), 400, "response_format"},
        {"response_format mp3", with("response_format", "mp3"), 400, "response_format"},
        {"response_format a number", with("response_format", 16), 400, "response_format"},
        {"instructions a number", with("instructions", 1), 400, "instructions"},
        {"instructions a boolean", with("instructions", true), 400, "instructions"},
        {"instructions absent", with("instructions", absent), 200, {}},
        {"unknown members ignored", with("speed", 1.25), 200, {}},
    };
    for (const QString &path : {openAIPath, servicePath}) {
        for (const Case &c : cases)
            QTest::addRow("%s %s", qPrintable(path), c.name) << path << c.body << c.status << c.param;
    }
}

void TestDevServer::bodyValidation()
{
    QFETCH(QString, path);
    QFETCH(QByteArray, body);
    QFETCH(int, status);
    QFETCH(QString, param);

    DevServer server;
    QVERIFY2(server.start({"--pace", "0"}), qPrintable(server.errorString()));
    const HttpResult result = send(m_network, server.url(path), body, credentials(server, path));

    QCOMPARE(result.status, status);
    if (status == 400) {
        QCOMPARE(result.contentType, jsonType);
        const QJsonObject error = jsonError(result);
        QVERIFY(!error.value("message").toString().isEmpty());
        QCOMPARE(error.value("param").toString(), param);
        QCOMPARE(error.value("param").isNull(), param.isEmpty());
    } else {
        QVERIFY(!result.body.isEmpty());
    }
}

void TestDevServer::speechLengthFollowsText_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("voice");
    QTest::addColumn<double>("minSeconds");
    QTest::addColumn<double>("maxSeconds");

    // Speech runs at roughly 150 to 200 words a minute; the bounds leave room for pauses.
    QTest::newRow("one word") << openAIPath << "Hello."
                              << "alloy" << 0.2 << 1.5;
    QTest::newRow("sentence") << servicePath << "The quick brown fox jumps over the lazy dog."
                              << "nova" << 1.8 << 5.0;
    QTest::newRow("paragraph") << openAIPath
                               << "Quillvox reads the selected text aloud. It streams the audio while it "
                                  "arrives, so that speech starts quickly even when the passage is long. "
                                  "Three sentences like these take a while to say."
                               << "onyx" << 7.0 << 16.0;
    QTest::newRow("unknown voice") << servicePath << "The quick brown fox jumps over the lazy dog."
                                   << "nobody" << 1.8 << 5.0;
}

void TestDevServer::speechLengthFollowsText()
{
    QFETCH(QString, path);
    QFETCH(QString, text);
    QFETCH(QString, voice);
    QFETCH(double, minSeconds);
    QFETCH(double, maxSeconds);

    DevServer server;
    QVERIFY2(server.start({"--pace", "0"}), qPrintable(server.errorString()));
    const HttpResult result =
        send(m_network, server.url(path), speechBody(text, voice), credentials(server, path));

    QCOMPARE(result.status, 200);
    QCOMPARE(result.error, QNetworkReply::NoError);
    QCOMPARE(result.contentType, "audio/pcm");
    QCOMPARE(result.body.size() % 2, 0);
    QVERIFY2(seconds(result.body) >= minSeconds && seconds(result.body) <= maxSeconds,
             qPrintable(QString::number(seconds(result.body)) + " s"));
    // Speech, not silence: somewhere the signal gets loud.
    const QList<qint16> samples = samplesOf(result.body);
    QVERIFY(*std::max_element(samples.begin(), samples.end()) > 3000);
}

void TestDevServer::voicesDiffer()
{
    DevServer server;
    QVERIFY2(server.start({"--pace", "0"}), qPrintable(server.errorString()));

    QSet<QByteArray> distinct;
    for (const QString &voice : allVoices) {
        const HttpResult result = send(m_network, server.url(openAIPath), speechBody("Good morning.", voice));
        QCOMPARE(result.status, 200);
        QVERIFY(!result.body.isEmpty());
        distinct.insert(result.body);
    }
    QCOMPARE(distinct.size(), allVoices.size());
}

void TestDevServer::sineTone_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<double>("hz");
    QTest::addColumn<QString>("voice");

    QTest::newRow("default 440 Hz") << QStringList() << 440.0 << "alloy";
    QTest::newRow("1 kHz") << QStringList{"--sine-hz", "1000"} << 1000.0 << "shimmer";
    QTest::newRow("220 Hz") << QStringList{"--sine-hz", "220"} << 220.0 << "onyx";
}

void TestDevServer::sineTone()
{
    QFETCH(QStringList, arguments);
    QFETCH(double, hz);
    QFETCH(QString, voice);

    DevServer sine;
    QVERIFY2(sine.start(arguments + QStringList{"--synth", "sine", "--pace", "0"}),
             qPrintable(sine.errorString()));
    DevServer speech;
    QVERIFY2(speech.start({"--pace", "0"}), qPrintable(speech.errorString()));
    const QByteArray body = speechBody("Pitch and timing are measured against this.", voice);

    const HttpResult tone = send(m_network, sine.url(servicePath), body, credentials(sine, servicePath));
    const HttpResult spoken =
        send(m_network, speech.url(servicePath), body, credentials(speech, servicePath));
    QCOMPARE(tone.status, 200);
    QCOMPARE(spoken.status, 200);

    QCOMPARE(tone.body.size(), spoken.body.size());
    QVERIFY(tone.body != spoken.body);
    const double measured = zeroCrossingHz(samplesOf(tone.body));
    QVERIFY2(qAbs(measured - hz) < hz * 0.01, qPrintable(QString::number(measured) + " Hz"));
}

void TestDevServer::pacingKeepsTheAudio_data()
{
    QTest::addColumn<QStringList>("arguments");

    QTest::newRow("eight times real time") << QStringList{"--pace", "8"};
    QTest::newRow("twenty times real time, late head") << QStringList{"--pace", "20", "--ttfb-ms", "50"};
    QTest::newRow("unpaced, late head") << QStringList{"--pace", "0", "--ttfb-ms", "50"};
}

void TestDevServer::pacingKeepsTheAudio()
{
    QFETCH(QStringList, arguments);

    DevServer reference;
    QVERIFY2(reference.start({"--pace", "0"}), qPrintable(reference.errorString()));
    DevServer paced;
    QVERIFY2(paced.start(arguments), qPrintable(paced.errorString()));
    const QByteArray body = speechBody("Every piece arrives, in order.", "fable");

    const HttpResult expected = send(m_network, reference.url(openAIPath), body);
    const HttpResult actual = send(m_network, paced.url(openAIPath), body);
    QCOMPARE(expected.status, 200);
    QCOMPARE(actual.status, 200);
    QCOMPARE(actual.error, QNetworkReply::NoError);
    QCOMPARE(actual.body.size(), expected.body.size());
    QVERIFY(actual.body == expected.body);
}

void TestDevServer::failStatus_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<int>("code");

    for (const QString &path : {openAIPath, servicePath}) {
        for (const int code : {400, 402, 429, 500, 503})
            QTest::addRow("%s %d", qPrintable(path), code) << path << code;
    }
}

void TestDevServer::failStatus()
{
    QFETCH(QString, path);
    QFETCH(int, code);

    DevServer server;
    QVERIFY2(server.start({"--fail-status", QString::number(code)}), qPrintable(server.errorString()));

    // The fault comes first: neither credentials nor a valid body avoid it.
    for (const auto &authorization : {std::optional<QByteArray>(defaultKey), std::optional<QByteArray>()}) {
        const HttpResult result = send(m_network, server.url(path), speechBody("Hi."), authorization);
        QCOMPARE(result.status, code);
        QCOMPARE(result.contentType, jsonType);
        QVERIFY(!jsonError(result).value("message").toString().isEmpty());
    }
    QCOMPARE(send(m_network, server.url("/health"), std::nullopt).status, 200);
}

void TestDevServer::cutAfter_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<qint64>("cutAfter");

    QTest::newRow("before the first byte") << openAIPath << qint64(0);
    QTest::newRow("mid-sample") << openAIPath << qint64(1001);
    QTest::newRow("on a piece boundary") << openAIPath << qint64(4800);
    QTest::newRow("beyond the end") << openAIPath << qint64(100'000'000);
}

void TestDevServer::cutAfter()
{
    QFETCH(QString, path);
    QFETCH(qint64, cutAfter);

    DevServer reference;
    QVERIFY2(reference.start({"--pace", "0"}), qPrintable(reference.errorString()));
    DevServer server;
    QVERIFY2(server.start({"--pace", "0", "--cut-after", QString::number(cutAfter)}),
             qPrintable(server.errorString()));
    const QByteArray body = speechBody("This sentence is cut short.");
    const HttpResult full = send(m_network, reference.url(path), body);
    QCOMPARE(full.status, 200);
    QVERIFY(full.body.size() > 4800);

    const RawResponse response = rawExchange(server.port(), rawPost(path, body));
    QCOMPARE(response.statusLine, "HTTP/1.1 200 OK");
    QCOMPARE(response.header("Transfer-Encoding"), "chunked");
    QVERIFY(response.closedByServer);
    const bool cuts = cutAfter < full.body.size();
    QCOMPARE(response.body.size(), cuts ? cutAfter : full.body.size());
    QVERIFY(response.body == full.body.left(response.body.size()));
    QCOMPARE(response.bodyComplete, !cuts);

    const QList<QJsonObject> log = server.waitForRequests(1);
    QCOMPARE(log.size(), 1);
    QCOMPARE(log.first().value("status").toInt(), 200);
    QCOMPARE(log.first().value("bodyBytesSent").toInteger(), response.body.size());
}

void TestDevServer::dropBeforeHead()
{
    DevServer server;
    QVERIFY2(server.start({"--drop-before-head"}), qPrintable(server.errorString()));
    const QByteArray body = speechBody("Nobody answers.");

    const RawResponse raw = rawExchange(server.port(), rawPost(servicePath, body, "Bearer token"));
    QVERIFY(raw.closedByServer);
    QCOMPARE(raw.bytesReceived, 0);

    const QList<QJsonObject> log = server.waitForRequests(1);
    QCOMPARE(log.size(), 1);
    QCOMPARE(log.first().value("path").toString(), servicePath);
    QCOMPARE(log.first().value("body").toString().toUtf8(), body);
    QCOMPARE(DevServer::header(log.first(), u"Authorization"), "Bearer token");
    QCOMPARE(log.first().value("status").toInt(), 0);
    QCOMPARE(log.first().value("bodyBytesSent").toInteger(), 0);

    // Every connection is dropped, whatever it asks for.
    const HttpResult viaClient = send(m_network, server.url("/health"), std::nullopt);
    QCOMPARE(viaClient.status, 0);
    QVERIFY(viaClient.error != QNetworkReply::NoError);
}

void TestDevServer::logRecordsTheExchange_data()
{
    QTest::addColumn<QString>("target");
    QTest::addColumn<std::optional<QByteArray>>("authorization");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<int>("status");

    QTest::newRow("speech") << "/v1/audio/speech?trace=1&note=a%20b" << std::optional<QByteArray>(defaultKey)
                            << speechBody("Logged.", "echo") << 200;
    QTest::newRow("unauthorised") << servicePath << std::optional<QByteArray>() << speechBody("Logged.")
                                  << 401;
    QTest::newRow("invalid body") << openAIPath << std::optional<QByteArray>(defaultKey)
                                  << QByteArray("{\"input\": 1}") << 400;
    QTest::newRow("unicode text") << openAIPath << std::optional<QByteArray>(defaultKey)
                                  << speechBody(QString::fromUtf8("Café — naïve “quotes”."), "marin") << 200;
}

void TestDevServer::logRecordsTheExchange()
{
    QFETCH(QString, target);
    QFETCH(std::optional<QByteArray>, authorization);
    QFETCH(QByteArray, body);
    QFETCH(int, status);

    DevServer server;
    QVERIFY2(server.start({"--pace", "0"}), qPrintable(server.errorString()));
    const HttpResult result =
        send(m_network, server.url(target), body, authorization, {{"X-Probe", "probe value"}});
    QCOMPARE(result.status, status);

    const QList<QJsonObject> log = server.waitForRequests(1);
    QCOMPARE(log.size(), 1);
    const QJsonObject &record = log.first();
    const QUrl sent = server.url(target);
    QCOMPARE(record.value("method").toString(), "POST");
    QCOMPARE(record.value("path").toString(), sent.path());
    QCOMPARE(record.value("query").toString(), sent.query(QUrl::FullyEncoded));
    QCOMPARE(record.value("body").toString().toUtf8(), body);
    QCOMPARE(record.value("status").toInt(), status);
    QCOMPARE(record.value("bodyBytesSent").toInteger(), result.body.size());
    QVERIFY(!record.value("time").toString().isEmpty());

    QCOMPARE(DevServer::header(record, u"Authorization"),
             authorization ? QString::fromUtf8(*authorization) : QString());
    QCOMPARE(DevServer::header(record, u"content-type"), "application/json");
    QCOMPARE(DevServer::header(record, u"X-Probe"), "probe value");
    QCOMPARE(DevServer::header(record, u"Content-Length"), QString::number(body.size()));
    // Only what the client sent: nothing the server library adds for itself.
    for (const QString &name : record.value("headers").toObject().keys())
        QVERIFY2(!name.contains('_'), qPrintable(name));
}

void TestDevServer::concurrentRequestsGetTheirOwnAudio()
{
    DevServer server;
    QVERIFY2(server.start({"--pace", "0"}), qPrintable(server.errorString()));
    const QString text = QStringLiteral("Several requests at once.");

    // Sequential answers first, as the reference for each voice.
    QHash<QString, QByteArray> expected;
    for (const QString &voice : allVoices) {
        const HttpResult result = send(m_network, server.url(openAIPath), speechBody(text, voice));
        QCOMPARE(result.status, 200);
        expected.insert(voice, result.body);
    }

    QList<QNetworkReply *> replies;
    for (const QString &voice : allVoices) {
        QNetworkRequest request(server.url(openAIPath));
        request.setRawHeader("Authorization", defaultKey);
        request.setHeader(QNetworkRequest::ContentTypeHeader, "application/json");
        replies.append(m_network.post(request, speechBody(text, voice)));
    }
    const auto cleanup = qScopeGuard([&] { qDeleteAll(replies); });
    QTRY_VERIFY_WITH_TIMEOUT(
        std::all_of(replies.begin(), replies.end(), [](auto *r) { return r->isFinished(); }), 20000);
    for (qsizetype i = 0; i < replies.size(); ++i) {
        QCOMPARE(replies[i]->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 200);
        QVERIFY2(replies[i]->readAll() == expected.value(allVoices[i]), qPrintable(allVoices[i]));
    }
    QCOMPARE(server.waitForRequests(2 * allVoices.size()).size(), 2 * allVoices.size());
}

void TestDevServer::slowStreamDoesNotHoldUpOthers()
{
    DevServer server;
    QVERIFY2(server.start({"--pace", "1"}), qPrintable(server.errorString()));

    // A long passage streaming in real time...
    QTcpSocket slow;
    slow.connectToHost(QHostAddress::LocalHost, server.port());
    QVERIFY(slow.waitForConnected(5000));
    slow.write(
        rawPost(openAIPath, speechBody("This passage takes many seconds to stream at the pace of speech, "
                                       "much longer than the short request that follows it.")));
    QByteArray slowBytes;
    QTRY_VERIFY_WITH_TIMEOUT((slowBytes += slow.readAll()).contains("\r\n\r\n"), 10000);

    // ...does not keep a short one from being answered in full meanwhile.
    const HttpResult quick = send(m_network, server.url(openAIPath), speechBody("Hi."));
    QCOMPARE(quick.status, 200);
    QCOMPARE(quick.error, QNetworkReply::NoError);
    QVERIFY(!quick.body.isEmpty());

    slowBytes += slow.readAll();
    QCOMPARE(slow.state(), QAbstractSocket::ConnectedState);
    QVERIFY(!parseRaw(slowBytes).bodyComplete);
}

void TestDevServer::exitsCleanlyOnSigterm_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("activity");

    QTest::newRow("idle") << QStringList{"--pace", "0"} << "none";
    QTest::newRow("keep-alive connection open") << QStringList{"--pace", "0"} << "keep-alive";
    QTest::newRow("stream in flight") << QStringList{"--pace", "1"} << "streaming";
    QTest::newRow("head delayed") << QStringList{"--ttfb-ms", "60000"} << "waiting";
    QTest::newRow("request half sent") << QStringList() << "partial";
    QTest::newRow("drop mode, request half sent") << QStringList{"--drop-before-head"} << "partial";
}

void TestDevServer::exitsCleanlyOnSigterm()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, activity);

    DevServer server;
    QVERIFY2(server.start(arguments), qPrintable(server.errorString()));
    QTcpSocket socket;
    if (activity == "keep-alive") {
        QCOMPARE(send(m_network, server.url("/health"), std::nullopt).status, 200);
    } else if (activity != "none") {
        socket.connectToHost(QHostAddress::LocalHost, server.port());
        QVERIFY(socket.waitForConnected(5000));
        const QByteArray request =
            rawPost(openAIPath, speechBody("A long passage that is still streaming when "
                                           "the server is told to stop."));
        socket.write(activity == "partial" ? request.left(30) : request);
        if (activity == "streaming")
            QTRY_VERIFY_WITH_TIMEOUT(socket.bytesAvailable() > 0, 10000);
        else
            QVERIFY(socket.waitForBytesWritten(5000));
    }

    QCOMPARE(server.stop(), 0);
    QVERIFY(!server.isRunning());
    if (activity == "streaming") {
        // The stream ended unfinished, and its line was still written.
        const QList<QJsonObject> log = server.requests();
        QCOMPARE(log.size(), 1);
        QCOMPARE(log.first().value("status").toInt(), 200);
    }
}

void TestDevServer::health_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("synth");

    QTest::newRow("espeak") << QStringList() << "espeak";
    QTest::newRow("sine") << QStringList{"--synth", "sine"} << "sine";
    QTest::newRow("speech failing") << QStringList{"--fail-status", "500"} << "espeak";
}

void TestDevServer::health()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, synth);

    DevServer server;
    QVERIFY2(server.start(arguments), qPrintable(server.errorString()));
    const HttpResult result = send(m_network, server.url("/health"), std::nullopt, std::nullopt);

    QCOMPARE(result.status, 200);
    QCOMPARE(result.contentType, jsonType);
    const QJsonObject health = QJsonDocument::fromJson(result.body).object();
    QCOMPARE(health.value("status").toString(), "ok");
    QCOMPARE(health.value("synth").toString(), synth);
}

void TestDevServer::failsToStartClearly_data()
{
    QTest::addColumn<QString>("program");
    QTest::addColumn<QStringList>("arguments");
    // Part of the reason the failure gives.
    QTest::addColumn<QString>("reason");

    const QString server;
    QTest::newRow("no such program") << "/nonexistent/quillvox-devserver" << QStringList() << "cannot start";
    QTest::newRow("unknown option") << server << QStringList{"--bogus"} << "--bogus";
    QTest::newRow("missing value") << server << QStringList{"--ttfb-ms"} << "--ttfb-ms: missing value";
    QTest::newRow("port out of range") << server << QStringList{"--port", "70000"} << "--port";
    QTest::newRow("negative pace") << server << QStringList{"--pace", "-1"} << "--pace";
    QTest::newRow("unknown synthesiser") << server << QStringList{"--synth", "noise"} << "--synth";
    QTest::newRow("tone above Nyquist") << server << QStringList{"--sine-hz", "20000"} << "--sine-hz";
    QTest::newRow("delay not a number") << server << QStringList{"--ttfb-ms", "soon"} << "--ttfb-ms";
    QTest::newRow("success as a fault") << server << QStringList{"--fail-status", "200"} << "--fail-status";
    QTest::newRow("negative cut") << server << QStringList{"--cut-after", "-5"} << "--cut-after";
    QTest::newRow("empty key") << server << QStringList{"--openai-key="} << "--openai-key";
    QTest::newRow("log folder missing")
        << server << QStringList{"--log", "/nonexistent/folder/log.jsonl"} << "cannot open log";
}

void TestDevServer::failsToStartClearly()
{
    QFETCH(QString, program);
    QFETCH(QStringList, arguments);
    QFETCH(QString, reason);

    DevServer server(program);
    QVERIFY(!server.start(arguments));
    QVERIFY2(server.errorString().contains(reason), qPrintable(server.errorString()));
    QVERIFY(!server.isRunning());
}

void TestDevServer::busyPortFailsToStart_data()
{
    QTest::addColumn<QStringList>("arguments");

    QTest::newRow("http") << QStringList();
    QTest::newRow("drop mode") << QStringList{"--drop-before-head"};
}

void TestDevServer::busyPortFailsToStart()
{
    QFETCH(QStringList, arguments);

    DevServer first;
    QVERIFY2(first.start(), qPrintable(first.errorString()));
    DevServer second;
    QVERIFY(!second.start(arguments + QStringList{"--port", QString::number(first.port())}));
    QVERIFY2(second.errorString().contains("cannot listen"), qPrintable(second.errorString()));
    QCOMPARE(send(m_network, first.url("/health"), std::nullopt).status, 200);
}

void TestDevServer::signInRedirect_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("query");
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("email");

    const QString to = "redirect_to=" + QString::fromLatin1(QUrl::toPercentEncoding(appCallback));
    const QStringList automatic{"--auto-consent"};
    const QString reader = QStringLiteral("reader@example.com");
    QTest::newRow("consent page") << QStringList() << "provider=google&" + to << 200 << reader;
    QTest::newRow("auto consent") << automatic << "provider=apple&" + to << 302 << reader;
    QTest::newRow("chosen email") << QStringList{"--auto-consent", "--user-email", "ada@example.org"}
                                  << "provider=google&" + to << 302 << "ada@example.org";
    QTest::newRow("unknown provider") << automatic << "provider=github&" + to << 400 << reader;
    QTest::newRow("no provider") << automatic << to << 400 << reader;
    QTest::newRow("no redirect") << automatic << "provider=google" << 400 << reader;
}

void TestDevServer::signInRedirect()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, query);
    QFETCH(int, status);
    QFETCH(QString, email);

    DevServer server;
    QVERIFY2(server.start(arguments + QStringList{"--token-ttl", "900"}), qPrintable(server.errorString()));
    HttpResult result =
        send(m_network, server.url("/auth/v1/authorize?" + query), std::nullopt, std::nullopt);
    QCOMPARE(result.status, status);
    if (status == 400) {
        QVERIFY(!jsonOf(result).value("error").toString().isEmpty());
        return;
    }
    if (status == 200) {
        // The page's button leads on to the same redirect.
        QVERIFY(result.body.contains(QByteArray("Continue as " + email.toUtf8())));
        static const QRegularExpression link(QStringLiteral("href=\"(/auth/v1/consent\\?[^\"]+)\""));
        const QRegularExpressionMatch match = link.match(QString::fromUtf8(result.body));
        QVERIFY(match.hasMatch());
        result =
            send(m_network, server.url(match.captured(1).replace("&amp;", "&")), std::nullopt, std::nullopt);
        QCOMPARE(result.status, 302);
    }
    QVERIFY2(result.location.startsWith(QByteArray(appCallback.toUtf8() + '#')), result.location.constData());
    const QUrlQuery session = fragmentOf(result);
    QCOMPARE(itemOf(session, "token_type"), "bearer");
    QCOMPARE(itemOf(session, "type"), "signup");
    QCOMPARE(itemOf(session, "expires_in"), "900");
    const HttpResult me = user(server, itemOf(session, "access_token"));
    QCOMPARE(me.status, 200);
    QCOMPARE(jsonOf(me).value("email").toString(), email);
    QCOMPARE(refresh(server, itemOf(session, "refresh_token")).status, 200);
}

void TestDevServer::refreshRotates_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QJsonObject>("inject");
    QTest::addColumn<int>("failures");
    QTest::addColumn<int>("failStatus");

    QTest::newRow("no failures") << QStringList() << QJsonObject() << 0 << 0;
    QTest::newRow("--fail-refresh") << QStringList{"--fail-refresh", "2"} << QJsonObject() << 2 << 400;
    QTest::newRow("/dev/fail") << QStringList()
                               << QJsonObject{{"route", "refresh"}, {"status", 503}, {"count", 1}} << 1
                               << 503;
}

void TestDevServer::refreshRotates()
{
    QFETCH(QStringList, arguments);
    QFETCH(QJsonObject, inject);
    QFETCH(int, failures);
    QFETCH(int, failStatus);

    DevServer server;
    QVERIFY2(server.start(arguments), qPrintable(server.errorString()));
    if (!inject.isEmpty())
        QCOMPARE(server.control("/dev/fail", inject).value("count").toInt(), failures);
    const QUrlQuery first = server.signIn();
    const QString token = itemOf(first, "refresh_token");
    for (int pending = failures; pending > 0; --pending) {
        QCOMPARE(server.control("/dev/state").value("refresh_failures_pending").toInt(), pending);
        QCOMPARE(refresh(server, token).status, failStatus);
    }

    // Failures spend nothing: the token still works, once, and hands over a new one.
    const HttpResult renewed = refresh(server, token);
    QCOMPARE(renewed.status, 200);
    const QJsonObject session = jsonOf(renewed);
    const QString next = session.value("refresh_token").toString();
    QVERIFY(!next.isEmpty() && next != token);
    QVERIFY(session.value("access_token").toString() != itemOf(first, "access_token"));
    QCOMPARE(user(server, session.value("access_token").toString()).status, 200);
    const HttpResult reused = refresh(server, token);
    QCOMPARE(reused.status, 400);
    QCOMPARE(jsonOf(reused).value("error").toString(), "invalid_grant");
    QCOMPARE(refresh(server, next).status, 200);
    const QJsonObject state = server.control("/dev/state");
    QCOMPARE(state.value("refreshes").toInt(), 2);
    QCOMPARE(state.value("refresh_failures_pending").toInt(), 0);
}

void TestDevServer::refreshRefused_data()
{
    QTest::addColumn<QByteArray>("apikey"); // empty: not sent
    QTest::addColumn<QByteArray>("authorization");
    QTest::addColumn<QByteArray>("body"); // %1: the refresh token from a sign-in
    QTest::addColumn<int>("status");

    const QByteArray valid = R"({"refresh_token":"%1"})";
    QTest::newRow("no apikey") << QByteArray() << QByteArray("Bearer k3y") << valid << 401;
    QTest::newRow("default apikey") << anonKey << QByteArray("Bearer k3y") << valid << 401;
    QTest::newRow("no bearer") << QByteArray("k3y") << QByteArray() << valid << 401;
    QTest::newRow("wrong bearer") << QByteArray("k3y") << QByteArray("Bearer nope") << valid << 401;
    QTest::newRow("not JSON") << QByteArray("k3y") << QByteArray("Bearer k3y") << QByteArray("%1") << 400;
    QTest::newRow("no token") << QByteArray("k3y") << QByteArray("Bearer k3y") << QByteArray("{}") << 400;
    QTest::newRow("unknown token") << QByteArray("k3y") << QByteArray("Bearer k3y")
                                   << QByteArray(R"({"refresh_token":"never-issued"})") << 400;
}

void TestDevServer::refreshRefused()
{
    QFETCH(QByteArray, apikey);
    QFETCH(QByteArray, authorization);
    QFETCH(QByteArray, body);
    QFETCH(int, status);

    DevServer server;
    QVERIFY2(server.start({"--anon-key", "k3y"}), qPrintable(server.errorString()));
    const QByteArray token = itemOf(server.signIn(), "refresh_token").toUtf8();
    const auto post = [&](const QByteArray &key, const QByteArray &auth, const QByteArray &json) {
        QList<QPair<QByteArray, QByteArray>> headers;
        if (!key.isEmpty())
            headers.append({"apikey", key});
        return send(m_network, server.url("/auth/v1/token?grant_type=refresh_token"),
                    QByteArray(json).replace("%1", token),
                    auth.isEmpty() ? std::nullopt : std::optional<QByteArray>(auth), headers);
    };
    const HttpResult refused = post(apikey, authorization, body);
    QCOMPARE(refused.status, status);
    QVERIFY(!jsonOf(refused).value("error").toString().isEmpty());
    // A refused request spends nothing.
    QCOMPARE(post("k3y", "Bearer k3y", R"({"refresh_token":"%1"})").status, 200);
}

void TestDevServer::accessTokenChecks_data()
{
    QTest::addColumn<QString>("token");
    QTest::addColumn<QByteArray>("apikey"); // empty: not sent
    QTest::addColumn<int>("userStatus");
    QTest::addColumn<int>("accountStatus");

    QTest::newRow("valid") << "valid" << anonKey << 200 << 200;
    // The account service wants no apikey, the auth backend does.
    QTest::newRow("no apikey") << "valid" << QByteArray() << 401 << 200;
    QTest::newRow("wrong apikey") << "valid" << QByteArray("nope") << 401 << 200;
    QTest::newRow("expired") << "expired" << anonKey << 401 << 401;
    QTest::newRow("longer life claimed") << "altered" << anonKey << 401 << 401;
    QTest::newRow("unsigned") << "unsigned" << anonKey << 401 << 401;
    QTest::newRow("refresh token") << "refresh" << anonKey << 401 << 401;
    QTest::newRow("another server's") << "foreign" << anonKey << 401 << 401;
}

void TestDevServer::accessTokenChecks()
{
    QFETCH(QString, token);
    QFETCH(QByteArray, apikey);
    QFETCH(int, userStatus);
    QFETCH(int, accountStatus);

    DevServer server;
    QVERIFY2(server.start({"--token-ttl", "2"}), qPrintable(server.errorString()));
    const QUrlQuery session = server.signIn();
    QByteArray bearer = itemOf(session, "access_token").toUtf8();
    const QList<QByteArray> parts = bearer.split('.');
    if (token == "expired") {
        // At least a second of life is left when it was issued, and none two seconds later.
        QCOMPARE(user(server, QString::fromUtf8(bearer)).status, 200);
        QTest::qWait(3000);
    } else if (token == "altered") {
        QJsonObject claims = decodedJson(parts[1]);
        claims.insert("exp", claims.value("exp").toInteger() + 3600);
        bearer = parts[0] + '.' + encodedJson(claims) + '.' + parts[2];
    } else if (token == "unsigned") {
        bearer = encodedJson({{"alg", "none"}, {"typ", "JWT"}}) + '.' + parts[1] + '.';
    } else if (token == "refresh") {
        bearer = itemOf(session, "refresh_token").toUtf8();
    } else if (token == "foreign") {
        DevServer other;
        QVERIFY2(other.start(), qPrintable(other.errorString()));
        bearer = itemOf(other.signIn(), "access_token").toUtf8();
    }

    QList<QPair<QByteArray, QByteArray>> headers;
    if (!apikey.isEmpty())
        headers.append({"apikey", apikey});
    const HttpResult me =
        send(m_network, server.url("/auth/v1/user"), std::nullopt, "Bearer " + bearer, headers);
    QCOMPARE(me.status, userStatus);
    if (userStatus == 200)
        QCOMPARE(jsonOf(me).value("email").toString(), "reader@example.com");
    const HttpResult balance =
        send(m_network, server.url("/api/credits/balance"), std::nullopt, "Bearer " + bearer);
    QCOMPARE(balance.status, accountStatus);
}

void TestDevServer::accountEndpoints_data()
{
    QTest::addColumn<QString>("target"); // POST for generate-code
    QTest::addColumn<bool>("signedIn");
    QTest::addColumn<QString>("failRoute");
    QTest::addColumn<int>("status");
    QTest::addColumn<QJsonObject>("expected"); // members of the answer

    const QString balance = QStringLiteral("/api/credits/balance");
    const QString code = QStringLiteral("/api/auth/generate-code");
    const QJsonObject nothingUsed{{"narrations", 0}, {"seconds", 0}, {"minutes", 0.0}};
    const QJsonObject unauthorised{{"error", "unauthorized"}};
    QTest::newRow("balance") << balance << true << "" << 200
                             << QJsonObject{{"balance_seconds", 185}, {"minutes_remaining", 3}};
    QTest::newRow("balance signed out") << balance << false << "" << 401 << unauthorised;
    QTest::newRow("balance failing") << balance << true << "balance" << 503 << QJsonObject();
    for (const char *period : {"week", "month", "all"})
        QTest::addRow("usage %s", period)
            << "/api/credits/usage?period=" + QString::fromLatin1(period) << true << "" << 200 << nothingUsed;
    QTest::newRow("usage by year") << "/api/credits/usage?period=year" << true << "" << 400 << QJsonObject();
    QTest::newRow("usage without period") << "/api/credits/usage" << true << "" << 400 << QJsonObject();
    QTest::newRow("usage signed out")
        << "/api/credits/usage?period=all" << false << "" << 401 << unauthorised;
    QTest::newRow("usage failing") << "/api/credits/usage?period=all" << true << "usage" << 503
                                   << QJsonObject();
    QTest::newRow("code") << code << true << "" << 200
                          << QJsonObject{{"expires_in", 300}, {"message", "Code generated"}};
    QTest::newRow("code signed out") << code << false << "" << 401 << unauthorised;
    QTest::newRow("code failing") << code << true << "generate-code" << 503 << QJsonObject();
}

void TestDevServer::accountEndpoints()
{
    QFETCH(QString, target);
    QFETCH(bool, signedIn);
    QFETCH(QString, failRoute);
    QFETCH(int, status);
    QFETCH(QJsonObject, expected);

    DevServer server;
    QVERIFY2(server.start({"--balance-seconds", "185"}), qPrintable(server.errorString()));
    const auto authorization = signedIn ? credentials(server, servicePath) : std::nullopt;
    if (!failRoute.isEmpty())
        server.control("/dev/fail", {{"route", failRoute}, {"status", status}, {"count", 1}});
    const std::optional<QByteArray> body =
        target.endsWith("generate-code") ? std::optional<QByteArray>("") : std::nullopt;

    const HttpResult result = send(m_network, server.url(target), body, authorization);
    QCOMPARE(result.status, status);
    QCOMPARE(result.contentType, jsonType);
    const QJsonObject answer = jsonOf(result);
    for (auto it = expected.begin(); it != expected.end(); ++it)
        QCOMPARE(answer.value(it.key()), it.value());
    if (status == 200 && target == "/api/auth/generate-code")
        QVERIFY(!answer.value("code").toString().isEmpty());
    // An injected failure lasts for its count only.
    if (!failRoute.isEmpty())
        QCOMPARE(send(m_network, server.url(target), body, authorization).status, 200);
}

void TestDevServer::tokenExchange_data()
{
    QTest::addColumn<bool>("generated");
    QTest::addColumn<QString>("next");
    QTest::addColumn<int>("status");

    QTest::newRow("to the purchase page") << true << "/api/credits/purchase-redirect?package=pro" << 302;
    QTest::newRow("unknown code") << false << "/purchase" << 400;
    QTest::newRow("absolute next") << true << "https://example.com/" << 400;
    QTest::newRow("next on another host") << true << "//example.com/" << 400;
}

void TestDevServer::tokenExchange()
{
    QFETCH(bool, generated);
    QFETCH(QString, next);
    QFETCH(int, status);

    DevServer server;
    QVERIFY2(server.start(), qPrintable(server.errorString()));
    const HttpResult made =
        send(m_network, server.url("/api/auth/generate-code"), "", credentials(server, servicePath));
    const QString code =
        generated ? jsonOf(made).value("code").toString() : QStringLiteral("never-generated");
    const auto exchange = [&](const QString &to) {
        return send(
            m_network,
            server.url("/api/auth/token-exchange?code=" + code + "&next=" + QUrl::toPercentEncoding(to)),
            std::nullopt, std::nullopt);
    };

    const HttpResult result = exchange(next);
    QCOMPARE(result.status, status);
    if (status == 400) {
        QVERIFY(result.contentType.startsWith("text/html"));
        QCOMPARE(result.body.contains("Invalid or expired code"), !generated);
        // Refusing the destination leaves the code unspent.
        QCOMPARE(exchange("/purchase").status, generated ? 302 : 400);
        return;
    }
    QCOMPARE(result.location, next.toUtf8());
    const HttpResult again = exchange(next);
    QCOMPARE(again.status, 400);
    QVERIFY(again.body.contains("Invalid or expired code"));

    const HttpResult purchase = send(m_network, server.url(next), std::nullopt, std::nullopt);
    QCOMPARE(purchase.status, 302);
    QCOMPARE(purchase.location, "/purchase?package=pro");
    const HttpResult page = send(m_network, server.url("/purchase?package=pro"), std::nullopt, std::nullopt);
    QCOMPARE(page.status, 200);
    QVERIFY(page.body.contains("pro"));
}

void TestDevServer::serviceStreamCharges_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QJsonObject>("control"); // POSTed to /dev/<key> before the request
    QTest::addColumn<int>("before");
    QTest::addColumn<int>("status");

    const QStringList start{"--balance-seconds", "600"};
    QTest::newRow("whole narration") << start << QJsonObject() << 600 << 200;
    // 140000 bytes are 2.9 s.
    QTest::newRow("cut short") << start + QStringList{"--cut-after", "140000"} << QJsonObject() << 600 << 200;
    QTest::newRow("less left than narrated")
        << QStringList{"--balance-seconds", "1"} << QJsonObject() << 1 << 200;
    QTest::newRow("nothing left") << QStringList{"--balance-seconds", "0"} << QJsonObject() << 0 << 402;
    QTest::newRow("spent meanwhile") << start << QJsonObject{{"balance", QJsonObject{{"seconds", 0}}}} << 0
                                     << 402;
    QTest::newRow("injected failure")
        << start << QJsonObject{{"fail", QJsonObject{{"route", "tts"}, {"status", 503}, {"count", 1}}}} << 600
        << 503;
    QTest::newRow("--fail-status first")
        << QStringList{"--balance-seconds", "0", "--fail-status", "500"} << QJsonObject() << 0 << 500;
}

void TestDevServer::serviceStreamCharges()
{
    QFETCH(QStringList, arguments);
    QFETCH(QJsonObject, control);
    QFETCH(int, before);
    QFETCH(int, status);

    DevServer server;
    QVERIFY2(server.start(arguments + QStringList{"--synth", "sine", "--pace", "0"}),
             qPrintable(server.errorString()));
    const auto authorization = credentials(server, servicePath);
    for (auto it = control.begin(); it != control.end(); ++it)
        QVERIFY(!server.control("/dev/" + it.key(), it.value().toObject()).isEmpty());

    const HttpResult result =
        send(m_network, server.url(servicePath),
             speechBody("This sentence is long enough to take a few seconds to say aloud."), authorization);
    QCOMPARE(result.status, status);
    if (status == 402)
        QCOMPARE(jsonOf(result).value("error").toString(), "insufficient_balance");
    if (arguments.contains("--cut-after"))
        QCOMPARE(result.body.size(), 140000);
    const qint64 charged = status == 200 ? (result.body.size() + bytesPerSecond / 2) / bytesPerSecond : 0;
    QVERIFY(status != 200 || charged >= 2);

    QCOMPARE(server.control("/dev/state").value("balance_seconds").toInteger(),
             std::max<qint64>(0, before - charged));
    const QJsonObject usage =
        jsonOf(send(m_network, server.url("/api/credits/usage?period=week"), std::nullopt, authorization));
    QCOMPARE(usage.value("narrations").toInt(), status == 200 ? 1 : 0);
    QCOMPARE(usage.value("seconds").toInteger(), charged);
    QCOMPARE(usage.value("minutes").toDouble(), charged / 60.0);
}

QTEST_GUILESS_MAIN(TestDevServer)
#include "tst_devserver.moc"
