// SPDX-License-Identifier: GPL-3.0-or-later
// The dev server's checks and injected faults that other tests take on trust: each must really refuse
// what it refuses and really produce the fault it is asked for. Its timing is bench/devserver_timing.py's.
#include "DevServer.h"

#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QSignalSpy>
#include <QTest>
#include <QUrlQuery>

#include <memory>
#include <optional>

namespace {

using Auth = std::optional<QByteArray>;

const QString openAIPath = QStringLiteral("/v1/audio/speech");
const QString servicePath = QStringLiteral("/api/tts/stream");
const QByteArray defaultKey = "Bearer local";
const QByteArray signedIn = "Bearer <session>"; // replaced by the access token of a fresh sign-in
const QByteArray anonKey = "quillvox-dev-anon-key";

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
            body.insert(member, value); // an undefined value removes it
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
        row("OpenAI, default key when another is chosen",
            {{"--openai-key", "s3cret"}, openAI, defaultKey, valid, 401});
        row("array", {{}, service, signedIn, "[]", 400});
        for (const QString member : {"model", "input", "voice", "response_format"})
            row(member + " missing",
                {{}, openAI, defaultKey, with(member, QJsonValue::Undefined), 400, member});
        row("response_format mp3",
            {{}, service, signedIn, with("response_format", "mp3"), 400, "response_format"});
        row("instructions a number", {{}, openAI, defaultKey, with("instructions", 1), 400, "instructions"});
        row("4,097 code points", {{}, openAI, defaultKey, with("input", QString(4097, u'x')), 400, "input"});
        // An injected fault comes before the key and body checks.
        row("--fail-status 503", {{"--fail-status", "503"}, service, {}, "[]", 503});
        row("--cut-after 0", {{"--cut-after", "0"}, openAI, defaultKey, valid, 200});
        row("--cut-after 1001", {{"--cut-after", "1001"}, openAI, defaultKey, valid, 200});
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
        if (c.arguments.value(0) == u"--cut-after") { // what was sent so far, ending as a failure
            DevServer whole;
            QVERIFY2(whole.start({"--pace", "0"}), qPrintable(whole.errorString()));
            QVERIFY(result.body == send(whole.url(c.target), c.body).body.left(c.arguments[1].toInt()));
            QCOMPARE(result.error, QNetworkReply::RemoteHostClosedError);
        }

        const QList<QJsonObject> log = server.waitForRequests(logged + 1);
        QCOMPARE(log.size(), logged + 1);
        // Path, body and the Authorization header as the speech tests read them; here, the rest.
        const QJsonObject &record = log.last();
        QCOMPARE(record.value("query").toString(), server.url(c.target).query(QUrl::FullyEncoded));
        QCOMPARE(record.value("status").toInt(), c.status);
        QCOMPARE(record.value("bodyBytesSent").toInteger(), result.body.size());
        QCOMPARE(DevServer::header(record, u"X-Probe"), "probe value");
        // Only what the client sent: nothing the server library adds for itself.
        for (const QString &name : record.value("headers").toObject().keys())
            QVERIFY2(!name.contains('_'), qPrintable(name));
    }

    // Every account route and the speech stream with and without a token. The auth backend wants the
    // apikey as well; the account service and the speech stream do not.
    void accessTokenChecks_data()
    {
        QTest::addColumn<QString>("token");
        QTest::addColumn<QByteArray>("apikey");
        QTest::addColumn<int>("userStatus");
        QTest::addColumn<int>("status");

        QTest::newRow("valid") << "valid" << anonKey << 200 << 200;
        QTest::newRow("wrong apikey") << "valid" << QByteArray("nope") << 401 << 200;
        QTest::newRow("none") << "none" << anonKey << 401 << 401;
    }

    void accessTokenChecks()
    {
        QFETCH(QString, token);
        QFETCH(QByteArray, apikey);
        QFETCH(int, userStatus);
        QFETCH(int, status);

        DevServer server;
        QVERIFY2(server.start({"--synth", "sine", "--pace", "0", "--balance-seconds", "185"}),
                 qPrintable(server.errorString()));
        const Auth bearer = token == "none" ? Auth() : credentials(server);

        QCOMPARE(send(server.url("/auth/v1/user"), std::nullopt, bearer, apikey).status, userStatus);
        const HttpResult balance = send(server.url("/api/credits/balance"), std::nullopt, bearer);
        QCOMPARE(balance.status, status);
        const QJsonObject granted{{"balance_seconds", 185}, {"minutes_remaining", 3}};
        QCOMPARE(balance.json(), (status == 200 ? granted : QJsonObject{{"error", "unauthorized"}}));
        QCOMPARE(send(server.url("/api/credits/usage?period=all"), std::nullopt, bearer).status, status);
        QCOMPARE(send(server.url("/api/auth/generate-code"), "", bearer).status, status);
        QCOMPARE(send(server.url(servicePath), speechBody("Hi."), bearer).status, status);
    }

    // A refresh token works once, and only with the anon key; an exchange code is one the server made, and
    // is spent on its first use.
    void tokensAreSpentOnce()
    {
        DevServer server;
        QVERIFY2(server.start(), qPrintable(server.errorString()));
        const QByteArray token = itemOf(server.signIn(), "refresh_token");
        QCOMPARE(refresh(server, token, "nope").status, 401);
        const HttpResult renewed = refresh(server, token);
        QCOMPARE(renewed.status, 200);
        const QByteArray next = renewed.json().value("refresh_token").toString().toUtf8();
        QVERIFY(!next.isEmpty() && next != token);
        QCOMPARE(refresh(server, token).json().value("error").toString(), "invalid_grant");
        QCOMPARE(refresh(server, next).status, 200);

        const HttpResult made = send(server.url("/api/auth/generate-code"), "", credentials(server));
        const auto exchange = [&](const QString &code) {
            return send(server.url("/api/auth/token-exchange?code=" + code + "&next=%2Fpurchase"),
                        std::nullopt, std::nullopt);
        };
        QCOMPARE(exchange("never-generated").status, 400);
        const QString code = made.json().value("code").toString();
        QCOMPARE(exchange(code).location, "/purchase");
        QCOMPARE(exchange(code).status, 400);
    }

private:
    // POSTs when there is a body, GETs otherwise.
    HttpResult send(const QUrl &url, const std::optional<QByteArray> &body,
                    const Auth &authorization = defaultKey, const QByteArray &apikey = {})
    {
        QNetworkRequest r(url);
        r.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
        r.setHeader(QNetworkRequest::ContentTypeHeader, "application/json");
        r.setRawHeader("X-Probe", "probe value");
        if (authorization)
            r.setRawHeader("Authorization", *authorization);
        if (!apikey.isEmpty())
            r.setRawHeader("apikey", apikey);
        const std::unique_ptr<QNetworkReply> reply(body ? m_network.post(r, *body) : m_network.get(r));
        QSignalSpy finished(reply.get(), &QNetworkReply::finished);
        if (!reply->isFinished() && !finished.wait(20000))
            reply->abort();
        return {reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), reply->readAll(),
                reply->header(QNetworkRequest::ContentTypeHeader).toByteArray(), reply->rawHeader("Location"),
                reply->error()};
    }
    static Auth credentials(const DevServer &server)
    {
        return "Bearer " + itemOf(server.signIn(), "access_token");
    }
    HttpResult refresh(const DevServer &server, const QByteArray &token, const QByteArray &apikey = anonKey)
    {
        return send(server.url("/auth/v1/token?grant_type=refresh_token"),
                    "{\"refresh_token\":\"" + token + "\"}", "Bearer " + anonKey, apikey);
    }

    QNetworkAccessManager m_network;
};

QTEST_GUILESS_MAIN(TestDevServer)
#include "tst_devserver.moc"
