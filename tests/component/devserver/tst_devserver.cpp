// SPDX-License-Identifier: GPL-3.0-or-later
// The dev server's own checks and injected faults, which the component tests take on trust: each must
// really refuse what it refuses and really produce the fault it is asked for.
#include "DevServer.h"

#include <QElapsedTimer>
#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QSet>
#include <QSignalSpy>
#include <QTcpSocket>
#include <QTest>
#include <QUrlQuery>
#include <QtEndian>

#include <memory>
#include <optional>
#include <vector>

namespace {

using Auth = std::optional<QByteArray>;

constexpr int bytesPerSecond = 48000; // 24 kHz, 16-bit mono
const QString openAIPath = QStringLiteral("/v1/audio/speech");
const QString servicePath = QStringLiteral("/api/tts/stream");
const QByteArray defaultKey = "Bearer local";
const QByteArray signedIn = "Bearer <session>"; // replaced by the access token of a fresh sign-in
const QByteArray anonKey = "quillvox-dev-anon-key";
const QStringList allVoices = {"marin", "cedar", "alloy", "echo", "fable", "nova", "onyx", "shimmer"};

QByteArray speechBody(const QString &input, const QString &voice = QStringLiteral("alloy"))
{
    return QJsonDocument(QJsonObject{{"model", "gpt-4o-mini-tts"},
                                     {"input", input},
                                     {"voice", voice},
                                     {"response_format", "pcm"},
                                     {"instructions", "Speak plainly."}})
        .toJson(QJsonDocument::Compact);
}

struct HttpResult
{
    int status = 0; // 0 when no response head arrived
    QByteArray body;
    QByteArray contentType;
    QByteArray location;
    QNetworkReply::NetworkError error = QNetworkReply::NoError;

    QJsonObject json() const { return QJsonDocument::fromJson(body).object(); }
    QJsonValue errorMember(const char *name) const { return json().value("error").toObject().value(name); }
};

QByteArray itemOf(const QUrlQuery &query, const QString &key)
{
    return query.queryItemValue(key, QUrl::FullyDecoded).toUtf8();
}

struct SpeechCase
{
    QStringList arguments;
    QString target;
    Auth authorization;
    QByteArray body;
    int status;
    QString param = {}; // what a 400 names; empty when the body as a whole is at fault
};

} // namespace

Q_DECLARE_METATYPE(SpeechCase)

class TestDevServer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Key and token checks, body checks and injected faults on both speech routes, and the log line of each.
    void speechRequests_data()
    {
        QTest::addColumn<SpeechCase>("c");

        const QByteArray valid = speechBody(QString::fromUtf8("Café — naïve “quotes”."));
        const auto with = [&](const QString &member, const QJsonValue &value) {
            QJsonObject body = QJsonDocument::fromJson(valid).object();
            body.remove(member);
            if (!value.isUndefined())
                body.insert(member, value);
            return QJsonDocument(body).toJson(QJsonDocument::Compact);
        };
        const QString &openAI = openAIPath, &service = servicePath;
        const auto row = [](const QString &name, const SpeechCase &c) {
            QTest::newRow(qPrintable(name)) << c;
        };
        row("OpenAI, key, query", {{}, openAI + "?trace=1&note=a%20b", defaultKey, valid, 200});
        // The key is checked before the body.
        row("OpenAI, no header, invalid body", {{}, openAI, {}, "[]", 401});
        row("OpenAI, key as prefix", {{}, openAI, "Bearer locally", valid, 401});
        row("OpenAI, other scheme", {{}, openAI, "Basic local", valid, 401});
        row("OpenAI, scheme in lower case", {{}, openAI, "bearer local", valid, 200});
        row("OpenAI, default key when another is chosen",
            {{"--openai-key", "s3cret"}, openAI, defaultKey, valid, 401});
        row("array", {{}, service, signedIn, "[]", 400});
        for (const QString member : {"model", "input", "voice", "response_format"})
            row(member + " missing",
                {{}, openAI, defaultKey, with(member, QJsonValue::Undefined), 400, member});
        row("voice an array", {{}, service, signedIn, with("voice", QJsonArray{"alloy"}), 400, "voice"});
        row("input empty", {{}, openAI, defaultKey, with("input", ""), 400, "input"});
        row("response_format mp3",
            {{}, service, signedIn, with("response_format", "mp3"), 400, "response_format"});
        row("instructions a number", {{}, openAI, defaultKey, with("instructions", 1), 400, "instructions"});
        row("instructions absent", {{}, service, signedIn, with("instructions", QJsonValue::Undefined), 200});
        row("unknown voice", {{}, service, signedIn, with("voice", "nobody"), 200});
        // The input limit counts code points, not UTF-16 units.
        row("4,096 surrogate pairs", {{"--cut-after", "2"},
                                      openAI,
                                      defaultKey,
                                      with("input", QStringLiteral("\U0001F600").repeated(4096)),
                                      200});
        row("4,097 code points", {{}, openAI, defaultKey, with("input", QString(4097, u'x')), 400, "input"});
        // An injected fault comes before the key and body checks.
        row("--fail-status 503", {{"--fail-status", "503"}, service, {}, "[]", 503});
    }

    void speechRequests()
    {
        QFETCH(SpeechCase, c);

        DevServer server;
        QVERIFY2(server.start(c.arguments + QStringList{"--pace", "0"}), qPrintable(server.errorString()));
        if (c.authorization == signedIn) {
            c.authorization = credentials(server);
            QCOMPARE(server.waitForRequests(1).size(), 1); // its line, written just after the answer
        }
        const qsizetype logged = server.requests().size();
        const HttpResult result = send(server.url(c.target), c.body, c.authorization);
        QCOMPARE(result.status, c.status);
        QCOMPARE(result.contentType, c.status == 200 ? "audio/pcm" : "application/json; charset=utf-8");
        QCOMPARE(result.errorMember("message").toString().isEmpty(), c.status == 200);
        if (c.status == 400)
            QCOMPARE(result.errorMember("param"), c.param.isEmpty() ? QJsonValue() : QJsonValue(c.param));

        const QList<QJsonObject> log = server.waitForRequests(logged + 1);
        QCOMPARE(log.size(), logged + 1);
        // Method, path, body and the Authorization header as tst_speechmanager reads them; here, the rest.
        const QJsonObject &record = log.last();
        QCOMPARE(record.value("query").toString(), server.url(c.target).query(QUrl::FullyEncoded));
        QCOMPARE(record.value("status").toInt(), c.status);
        QCOMPARE(record.value("bodyBytesSent").toInteger(), result.body.size());
        QCOMPARE(DevServer::header(record, u"X-Probe"), "probe value");
        // Only what the client sent: nothing the server library adds for itself.
        for (const QString &name : record.value("headers").toObject().keys())
            QVERIFY2(!name.contains('_'), qPrintable(name));
    }

    // Every account route and the speech stream with each kind of credential. The auth backend wants the
    // apikey as well; the account service and the speech stream do not.
    void accessTokenChecks_data()
    {
        QTest::addColumn<QString>("token");
        QTest::addColumn<QByteArray>("apikey");
        QTest::addColumn<int>("userStatus");
        QTest::addColumn<int>("status");

        QTest::newRow("valid") << "valid" << anonKey << 200 << 200;
        QTest::newRow("wrong apikey") << "valid" << QByteArray("nope") << 401 << 200;
        QTest::newRow("expired") << "expired" << anonKey << 401 << 401;
        QTest::newRow("longer life claimed") << "altered" << anonKey << 401 << 401;
        QTest::newRow("another server's") << "foreign" << anonKey << 401 << 401;
        QTest::newRow("none") << "none" << anonKey << 401 << 401;
        // An injected failure answers as many requests as it was asked to, then the route is itself again.
        QTest::newRow("failures injected") << "failing" << anonKey << 503 << 503;
    }

    void accessTokenChecks()
    {
        QFETCH(QString, token);
        QFETCH(QByteArray, apikey);
        QFETCH(int, userStatus);
        QFETCH(int, status);

        DevServer server;
        const QString ttl = token == "expired" ? "2" : "600";
        QVERIFY2(
            server.start({"--token-ttl", ttl, "--synth", "sine", "--pace", "0", "--balance-seconds", "185"}),
            qPrintable(server.errorString()));
        const QUrlQuery session = server.signIn();
        Auth bearer = "Bearer " + itemOf(session, "access_token");
        if (token == "expired") {
            QTest::qWait(3000); // --token-ttl 2 gave it two seconds at most
        } else if (token == "altered") {
            const QList<QByteArray> parts = bearer->split('.');
            constexpr auto base64url = QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals;
            QJsonObject claims =
                QJsonDocument::fromJson(QByteArray::fromBase64(parts[1], base64url)).object();
            claims.insert("exp", claims.value("exp").toInteger() + 3600);
            bearer = parts[0] + '.' +
                     QJsonDocument(claims).toJson(QJsonDocument::Compact).toBase64(base64url) + '.' +
                     parts[2];
        } else if (token == "foreign") {
            DevServer other;
            QVERIFY2(other.start(), qPrintable(other.errorString()));
            bearer = credentials(other);
        } else if (token == "none") {
            bearer.reset();
        } else if (token == "failing") {
            for (const QString route : {"user", "balance", "usage", "generate-code", "tts"})
                server.control("/dev/fail", {{"route", route}, {"status", 503}, {"count", 1}});
        }

        QCOMPARE(send(server.url("/auth/v1/user"), std::nullopt, bearer, apikey).status, userStatus);
        const HttpResult balance = send(server.url("/api/credits/balance"), std::nullopt, bearer);
        QCOMPARE(balance.status, status);
        const QJsonObject granted{{"balance_seconds", 185}, {"minutes_remaining", 3}};
        if (status != 503)
            QCOMPARE(balance.json(), (status == 200 ? granted : QJsonObject{{"error", "unauthorized"}}));
        QCOMPARE(send(server.url("/api/credits/usage?period=all"), std::nullopt, bearer).status, status);
        QCOMPARE(send(server.url("/api/auth/generate-code"), "", bearer).status, status);
        QCOMPARE(send(server.url(servicePath), speechBody("Hi."), bearer).status, status);
        if (token == "failing")
            QCOMPARE(send(server.url("/api/credits/balance"), std::nullopt, bearer).status, 200);
    }

    // Every voice speaks, differently from the others, and says the same again when asked all at once. The
    // sine synthesiser stands in for it with a 440 Hz tone exactly as long, for tests that measure timing.
    void voices()
    {
        // Speech runs at roughly 150 to 200 words a minute; the bounds leave room for pauses.
        const QString text =
            QStringLiteral("Quillvox reads the selected text aloud. It streams the audio while "
                           "it arrives, so that speech starts quickly even when the passage is "
                           "long. Three sentences like these take a while to say.");
        DevServer server;
        QVERIFY2(server.start({"--pace", "0"}), qPrintable(server.errorString()));
        DevServer sine;
        QVERIFY2(sine.start({"--synth", "sine", "--pace", "0"}), qPrintable(sine.errorString()));
        QList<QByteArray> expected;
        for (const QString &voice : allVoices) {
            const HttpResult result = send(server.url(openAIPath), speechBody(text, voice));
            QCOMPARE(result.status, 200);
            const double seconds = double(result.body.size()) / bytesPerSecond;
            QVERIFY2(seconds >= 7 && seconds <= 16, qPrintable(QString::number(seconds)));
            const HttpResult tone = send(sine.url(openAIPath), speechBody(text, voice));
            QCOMPARE(tone.body.size(), result.body.size());
            const auto sample = [](const QByteArray &pcm, qsizetype i) {
                return qFromLittleEndian<qint16>(pcm.constData() + 2 * i);
            };
            qint16 loudest = 0;
            qsizetype crossings = 0; // a pure tone of f Hz changes sign 2f times a second
            for (qsizetype i = 1; i < result.body.size() / 2; ++i) {
                loudest = std::max(loudest, sample(result.body, i));
                crossings += (sample(tone.body, i - 1) < 0) != (sample(tone.body, i) < 0);
            }
            QVERIFY(loudest > 3000); // speech, not silence
            expected.append(result.body);
            const double hz = crossings / 2.0 / seconds;
            QVERIFY2(qAbs(hz - 440) < 4.4, qPrintable(QString::number(hz) + " Hz"));
        }
        QCOMPARE(QSet<QByteArray>(expected.begin(), expected.end()).size(), allVoices.size());

        std::vector<std::unique_ptr<QNetworkReply>> replies;
        for (const QString &voice : allVoices)
            replies.emplace_back(m_network.post(request(server.url(openAIPath)), speechBody(text, voice)));
        for (qsizetype i = 0; i < allVoices.size(); ++i)
            QVERIFY2(resultOf(replies[i].get()).body == expected[i], qPrintable(allVoices[i]));
    }

    // Pacing, a late head and a cut-off change when the audio arrives and how much of it, never what it is.
    void streamFaults_data()
    {
        QTest::addColumn<double>("pace");
        QTest::addColumn<int>("ttfbMs");
        QTest::addColumn<qint64>("cutAfter");

        const qint64 uncut = 100'000'000;
        QTest::newRow("eight times real time") << 8.0 << 0 << uncut;
        QTest::newRow("late head") << 0.0 << 300 << uncut;
        for (const qint64 cut : {qint64(0), qint64(1001)})
            QTest::addRow("cut after %lld bytes", cut) << 0.0 << 0 << cut;
    }

    void streamFaults()
    {
        QFETCH(double, pace);
        QFETCH(int, ttfbMs);
        QFETCH(qint64, cutAfter);

        DevServer reference;
        QVERIFY2(reference.start({"--pace", "0"}), qPrintable(reference.errorString()));
        DevServer server;
        QVERIFY2(server.start({"--pace", QString::number(pace), "--ttfb-ms", QString::number(ttfbMs),
                               "--cut-after", QString::number(cutAfter)}),
                 qPrintable(server.errorString()));
        const QByteArray body = speechBody("Every piece arrives, in order.", "fable");
        const HttpResult full = send(reference.url(openAIPath), body);
        QVERIFY(full.body.size() > 4800);

        QElapsedTimer clock;
        clock.start();
        const HttpResult result = send(server.url(openAIPath), body);
        const double elapsedMs = clock.nsecsElapsed() / 1e6;
        const bool cuts = cutAfter < full.body.size();
        QCOMPARE(result.status, 200);
        QCOMPARE(result.body.size(), cuts ? cutAfter : full.body.size());
        QVERIFY(result.body == full.body.left(result.body.size()));
        // A cut body lacks its last chunk: the client sees a failure, not a short narration.
        QCOMPARE(result.error, cuts ? QNetworkReply::RemoteHostClosedError : QNetworkReply::NoError);
        const QList<QJsonObject> log = server.waitForRequests(1);
        QCOMPARE(log.size(), 1);
        QCOMPARE(log.first().value("bodyBytesSent").toInteger(), result.body.size());
        // Nothing comes early: the head waits out the delay, and the last 50 ms piece waits until the
        // audio before it would have played at the pace.
        const double lastPieceMs = (full.body.size() - bytesPerSecond / 20) * 1000.0 / bytesPerSecond;
        const double earliestMs = std::max(double(ttfbMs), pace > 0 ? lastPieceMs / pace : 0.0);
        QVERIFY2(elapsedMs >= earliestMs, qPrintable(QStringLiteral("%1 ms").arg(elapsedMs)));
    }

    void dropBeforeHead()
    {
        DevServer server;
        QVERIFY2(server.start({"--drop-before-head"}), qPrintable(server.errorString()));
        const QByteArray body = speechBody("Nobody answers.");
        const QByteArray request = "POST /api/tts/stream HTTP/1.1\r\nAuthorization: Bearer token\r\n"
                                   "Content-Length: " +
                                   QByteArray::number(body.size()) + "\r\n\r\n" + body;
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, server.port());
        QVERIFY(socket.waitForConnected(5000));
        socket.write(request);
        QVERIFY(socket.waitForDisconnected(10000));
        QCOMPARE(socket.readAll(), QByteArray());

        const QList<QJsonObject> log = server.waitForRequests(1);
        QCOMPARE(log.size(), 1);
        QCOMPARE(log.first().value("body").toString().toUtf8(), body);
        QCOMPARE(DevServer::header(log.first(), u"Authorization"), "Bearer token");
        QCOMPARE(log.first().value("status").toInt(), 0);
        // One still sending its request does not keep it from exiting when told to.
        socket.connectToHost(QHostAddress::LocalHost, server.port());
        QVERIFY(socket.waitForConnected(5000));
        socket.write(request.left(30));
        QVERIFY(socket.waitForBytesWritten(5000));
        QCOMPARE(server.stop(), 0);
    }

    void slowStreamDoesNotHoldUpOthers()
    {
        DevServer server;
        QVERIFY2(server.start({"--pace", "1"}), qPrintable(server.errorString()));
        // A long passage streaming in real time...
        const std::unique_ptr<QNetworkReply> slow(
            m_network.post(request(server.url(openAIPath)),
                           speechBody("This passage takes many seconds to stream at the pace of speech, "
                                      "much longer than the short request that follows it.")));
        QTRY_VERIFY_WITH_TIMEOUT(slow->bytesAvailable() > 0, 10000);
        // ...does not keep a short one from being answered in full meanwhile.
        const HttpResult quick = send(server.url(openAIPath), speechBody("Hi."));
        QCOMPARE(quick.status, 200);
        QCOMPARE(quick.error, QNetworkReply::NoError);
        QVERIFY(!slow->isFinished());
        // Told to stop with the stream in flight and the short one's connection kept open, it exits at
        // once, and the unfinished stream still leaves its line.
        QCOMPARE(server.stop(), 0);
        QCOMPARE(server.requests().size(), 2);
    }

    // A refresh token works once; a refused attempt or an injected failure does not spend it.
    void refreshTokenIsSpentOnce()
    {
        DevServer server;
        QVERIFY2(server.start({"--user-email", "ada@example.org", "--fail-refresh", "1"}),
                 qPrintable(server.errorString()));
        const QUrlQuery first = server.signIn();
        const HttpResult me = send(server.url("/auth/v1/user"), std::nullopt,
                                   "Bearer " + itemOf(first, "access_token"), anonKey);
        QCOMPARE(me.json().value("email").toString(), "ada@example.org");

        const QByteArray token = itemOf(first, "refresh_token");
        QCOMPARE(refresh(server, token).status, 400);
        QCOMPARE(refresh(server, token, "nope").status, 401);
        QCOMPARE(refresh(server, token, anonKey, "Bearer nope").status, 401);
        const HttpResult renewed = refresh(server, token);
        QCOMPARE(renewed.status, 200);
        const QByteArray next = renewed.json().value("refresh_token").toString().toUtf8();
        QVERIFY(!next.isEmpty() && next != token);
        QCOMPARE(refresh(server, token).json().value("error").toString(), "invalid_grant");
        QCOMPARE(refresh(server, next).status, 200);
    }

    // The code is spent on its first use, and only by a redirect to a path on this server.
    void tokenExchange()
    {
        DevServer server;
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        const HttpResult made = send(server.url("/api/auth/generate-code"), "", credentials(server));
        const QString code = made.json().value("code").toString();
        const auto exchange = [&](const QString &with, const QString &next) {
            return send(server.url("/api/auth/token-exchange?code=" + with +
                                   "&next=" + QUrl::toPercentEncoding(next)),
                        std::nullopt, std::nullopt);
        };

        QCOMPARE(exchange("never-generated", "/purchase").status, 400);
        for (const QString next : {"https://example.com/", "//example.com/"})
            QCOMPARE(exchange(code, next).status, 400);
        const QString next = QStringLiteral("/api/credits/purchase-redirect?package=pro");
        QCOMPARE(exchange(code, next).location, next.toUtf8());
        QCOMPARE(exchange(code, next).status, 400);
        const HttpResult redirect = send(server.url(next), std::nullopt, std::nullopt);
        QCOMPARE(redirect.location, "/purchase?package=pro");
        QVERIFY(send(server.url(redirect.location), std::nullopt, std::nullopt).body.contains("pro"));
    }

    // The service charges the seconds it sent, rounded, never below zero.
    void serviceStreamCharges_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("before");

        QTest::newRow("whole narration") << QStringList{"--balance-seconds", "600"} << 600;
        // 140000 bytes are 2.9 s.
        QTest::newRow("cut short") << QStringList{"--balance-seconds", "600", "--cut-after", "140000"} << 600;
        QTest::newRow("less left than narrated") << QStringList{"--balance-seconds", "1"} << 1;
    }

    void serviceStreamCharges()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, before);

        DevServer server;
        QVERIFY2(server.start(arguments + QStringList{"--synth", "sine", "--pace", "0"}),
                 qPrintable(server.errorString()));
        const Auth authorization = credentials(server);
        const HttpResult result = send(
            server.url(servicePath),
            speechBody("This sentence is long enough to take a few seconds to say aloud."), authorization);
        QCOMPARE(result.status, 200);
        if (arguments.contains("--cut-after"))
            QCOMPARE(result.body.size(), 140000);
        const qint64 charged = (result.body.size() + bytesPerSecond / 2) / bytesPerSecond;
        QVERIFY(charged >= 2);

        QCOMPARE(server.control("/dev/state").value("balance_seconds").toInteger(),
                 std::max<qint64>(0, before - charged));
        for (const QString period : {"week", "month", "all"}) {
            const QJsonObject usage =
                send(server.url("/api/credits/usage?period=" + period), std::nullopt, authorization).json();
            QCOMPARE(usage.value("narrations").toInt(), 1);
            QCOMPARE(usage.value("seconds").toInteger(), charged);
            QCOMPARE(usage.value("minutes").toDouble(), charged / 60.0);
        }
    }

private:
    static QNetworkRequest request(const QUrl &url, const Auth &authorization = defaultKey,
                                   const QByteArray &apikey = {})
    {
        QNetworkRequest request(url);
        request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
        request.setHeader(QNetworkRequest::ContentTypeHeader, "application/json");
        request.setRawHeader("X-Probe", "probe value");
        if (authorization)
            request.setRawHeader("Authorization", *authorization);
        if (!apikey.isEmpty())
            request.setRawHeader("apikey", apikey);
        return request;
    }
    static HttpResult resultOf(QNetworkReply *reply)
    {
        QSignalSpy finished(reply, &QNetworkReply::finished);
        if (!reply->isFinished() && !finished.wait(20000))
            reply->abort();
        return {reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), reply->readAll(),
                reply->header(QNetworkRequest::ContentTypeHeader).toByteArray(), reply->rawHeader("Location"),
                reply->error()};
    }
    // POSTs when there is a body, GETs otherwise.
    HttpResult send(const QUrl &url, const std::optional<QByteArray> &body,
                    const Auth &authorization = defaultKey, const QByteArray &apikey = {})
    {
        const QNetworkRequest r = request(url, authorization, apikey);
        const std::unique_ptr<QNetworkReply> reply(body ? m_network.post(r, *body) : m_network.get(r));
        return resultOf(reply.get());
    }
    static Auth credentials(const DevServer &server)
    {
        return "Bearer " + itemOf(server.signIn(), "access_token");
    }
    HttpResult refresh(const DevServer &server, const QByteArray &token, const QByteArray &apikey = anonKey,
                       const QByteArray &bearer = "Bearer " + anonKey)
    {
        return send(server.url("/auth/v1/token?grant_type=refresh_token"),
                    "{\"refresh_token\":\"" + token + "\"}", bearer, apikey);
    }

    QNetworkAccessManager m_network;
};

QTEST_GUILESS_MAIN(TestDevServer)
#include "tst_devserver.moc"
