// SPDX-License-Identifier: GPL-3.0-or-later
#include "DevServer.h"
#include "ManualClock.h"

#include "account/AuthManager.h"
#include "account/BalanceManager.h"
#include "account/KeychainHelper.h"
#include "app/SessionAccount.h"
#include "core/UserDefaults.h"
#include "onboarding/OnboardingViewModel.h"
#include "platform/WakeMonitor.h"
#include "platform/null/MemorySecretStore.h"
#include "platform/null/NullAudioSink.h"
#include "speech/SpeechManager.h"

#include <QRegularExpression>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

using namespace std::chrono_literals;

namespace {

// Everything one signed-in (or not) application instance has, against one dev server.
struct Session
{
    enum Start { Nothing, Auth, AuthAndBalance };
    explicit Session(const DevServer &server, Start start = Auth)
        : origin(server.url())
    {
        if (start != Nothing)
            startAuth();
        if (start == AuthAndBalance)
            startBalance();
    }
    // Positional: keychain, network (its own), clock, wake, auth and service origins, anon key, browser, log.
    void startAuth()
    {
        auth = std::make_unique<AuthManager>(AuthManager::Services{
            &keychain, nullptr, &clock, &wake, origin, origin, "quillvox-dev-anon-key", openUrl, addLog});
    }
    void startBalance()
    {
        balance = std::make_unique<BalanceManager>(
            BalanceManager::Services{auth.get(), nullptr, &clock, &wake, origin, openUrl, addLog});
    }
    // The browser's part of a sign-in: follow the authorize page's redirect, which carries the tokens in
    // its fragment, and hand the callback URL to the session.
    bool signIn()
    {
        auth->signIn(true);
        const QUrl redirect = opened.isEmpty() ? QUrl() : DevServer::redirectOf(opened.last());
        if (!redirect.hasFragment())
            return false;
        auth->handleCallback(QUrl("quillvox://auth/callback#" + redirect.fragment(QUrl::FullyEncoded)));
        return QTest::qWaitFor([&] { return auth->isSignedIn(); }, 5000);
    }
    bool waitForLog(const QString &line) const
    {
        return QTest::qWaitFor([&] { return log.contains("[AuthManager] " + line) || log.contains(line); },
                               5000);
    }
    // Lets the clock pass the waits between refresh attempts, 2 s and then 4 s, as each is announced.
    bool waitOutRetries(int count)
    {
        for (int wait = 2; wait <= 2 * count; wait *= 2) {
            if (!waitForLog(QStringLiteral("Waiting %1 seconds before retry...").arg(wait)))
                return false;
            clock.advance(std::chrono::seconds(wait));
        }
        return true;
    }

    KeychainHelper keychain{"test", std::make_unique<MemorySecretStore>()};
    QUrl origin;
    ManualClock clock;
    WakeMonitor wake;
    QStringList log;
    QList<QUrl> opened;
    std::function<void(const QUrl &)> openUrl = [this](const QUrl &url) { opened << url; };
    std::function<void(const QString &)> addLog = [this](const QString &line) { log << line; };
    std::unique_ptr<AuthManager> auth;
    std::unique_ptr<BalanceManager> balance;
};

// Answers every request with the same raw bytes, then closes the connection.
std::unique_ptr<QTcpServer> cannedServer(const QByteArray &answer)
{
    auto server = std::make_unique<QTcpServer>();
    QObject::connect(server.get(), &QTcpServer::newConnection, server.get(), [server = server.get(), answer] {
        while (QTcpSocket *socket = server->nextPendingConnection()) {
            QObject::connect(socket, &QTcpSocket::readyRead, socket, [socket, answer] {
                if (socket->readAll().contains("\r\n\r\n")) {
                    socket->write(answer);
                    socket->disconnectFromHost();
                }
            });
            QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        }
    });
    server->listen(QHostAddress::LocalHost);
    return server;
}

QByteArray ok(const QByteArray &body, const QByteArray &status = "200 OK")
{
    return "HTTP/1.1 " + status +
           "\r\nContent-Type: application/json\r\nContent-Length: " + QByteArray::number(body.size()) +
           "\r\n\r\n" + body;
}

qsizetype requestsTo(const DevServer &server, const QString &path)
{
    const QList<QJsonObject> requests = server.requests();
    return std::count_if(requests.cbegin(), requests.cend(),
                         [&](const QJsonObject &r) { return r["path"] == path; });
}

} // namespace

class TestAccountSession : public QObject
{
    Q_OBJECT

    std::unique_ptr<DevServer> m_server;

    void failNext(const QString &route, int status, int count)
    {
        m_server->control("/dev/fail", {{"route", route}, {"status", status}, {"count", count}});
    }

private Q_SLOTS:
    // A dev server of its own for each test; some tests want shorter-lived tokens or another balance.
    void init()
    {
        static const QHash<QString, QStringList> extra{
            {"concurrentCallersShareOneRefresh", {"--token-ttl", "30"}},
            {"wake", {"--token-ttl", "200"}},
            {"balanceFollowsTheSession", {"--balance-seconds", "3660"}},
            {"serviceNarration", {"--balance-seconds", "600"}}};
        m_server = std::make_unique<DevServer>();
        QVERIFY2(m_server->start(QStringList{"--auto-consent", "--synth", "sine"} +
                                 extra.value(QTest::currentTestFunction())),
                 qPrintable(m_server->errorString()));
    }

    // The browser sign-in stores both tokens; onboarding moves on from its sign-in step only, not from
    // another. "Continue" on pricing then gives the browser the purchase page through the token exchange,
    // and the button is clickable again.
    void onboardingThroughTheBrowser()
    {
        Session s(*m_server, Session::AuthAndBalance);
        OnboardingViewModel::Services services;
        std::tie(services.auth, services.balance, services.clock, services.serviceOrigin, services.openUrl) =
            std::tuple(s.auth.get(), s.balance.get(), &s.clock, s.origin, s.openUrl);
        services.isTrusted = [] { return true; };
        OnboardingViewModel onboarding(std::move(services));
        QVERIFY(s.signIn());
        QCOMPARE(onboarding.currentStepName(), "welcome");
        QCOMPARE(s.auth->email(), "reader@example.com");
        QVERIFY(!s.auth->isLoading());
        QVERIFY(s.keychain.load(KeychainKey::accessToken) && s.keychain.load(KeychainKey::refreshToken));
        onboarding.goTo(OnboardingStep::pricing);
        onboarding.purchase(QStringLiteral("popular"));
        QVERIFY(onboarding.isPurchasing());
        QTRY_COMPARE(s.opened.size(), 2); // after the sign-in page
        QCOMPARE(s.opened.last().path(), QStringLiteral("/api/auth/token-exchange"));
        QVERIFY(!onboarding.isPurchasing() && !onboarding.purchaseError());
    }

    void callbackWhoseUserFetchFails()
    {
        Session s(*m_server);
        s.auth->signIn(false);
        const QUrl redirect = DevServer::redirectOf(s.opened.last());
        failNext("user", 500, 1);
        s.auth->handleCallback(QUrl("quillvox://auth/callback#" + redirect.fragment(QUrl::FullyEncoded)));
        QVERIFY(s.waitForLog(
            "Failed to fetch user info after callback: Authentication failed: Failed to fetch user"));
        QCOMPARE(s.auth->currentErrorDescription(), "Authentication failed: Failed to fetch user info");
        QCOMPARE(s.auth->state(), AuthManager::State::signedOut);
        QVERIFY(s.keychain.load(KeychainKey::accessToken));
    }

    void signInWatchdog()
    {
        Session s(*m_server);
        s.auth->signIn(true);
        s.clock.advance(59s);
        QVERIFY(s.auth->isLoading());
        s.clock.advance(1s);
        QVERIFY(!s.auth->isLoading() && !s.auth->currentError());
    }

    // A later start finds the stored session. An access token that is refused is refreshed, or the session
    // is signed out after three refusals with the waits in between; -1: the access token is still valid.
    void restoreWithRefresh_data()
    {
        QTest::addColumn<int>("refusals");
        QTest::addColumn<QString>("lineEnd"); // stored after each token, as a shell pipe leaves it
        QTest::newRow("restored") << -1 << "";
        QTest::newRow("restored, tokens stored with line ends") << -1 << "\n";
        QTest::newRow("refreshed") << 0 << "";
        QTest::newRow("refreshed, tokens stored with line ends") << 0 << "\r\n";
        QTest::newRow("refused twice") << 2 << "";
        QTest::newRow("refused three times") << 3 << "";
    }
    void restoreWithRefresh()
    {
        QFETCH(int, refusals);
        QFETCH(QString, lineEnd);
        Session first(*m_server);
        QVERIFY(first.signIn());
        Session s(*m_server, Session::Nothing);
        const QString access = refusals < 0 ? *first.keychain.load(KeychainKey::accessToken) : "not-a-token";
        s.keychain.save(access + lineEnd, KeychainKey::accessToken);
        s.keychain.save(*first.keychain.load(KeychainKey::refreshToken) + lineEnd, KeychainKey::refreshToken);
        if (refusals > 0)
            failNext("refresh", 400, refusals);
        s.startAuth();
        const int retries = std::clamp(refusals, 0, 2);
        QVERIFY(s.waitOutRetries(retries));
        QTRY_VERIFY(s.auth->state() != AuthManager::State::unknown);
        QCOMPARE(s.auth->isSignedIn(), refusals < 3);
        QCOMPARE(s.clock.delays(), (QList<std::chrono::milliseconds>{2s, 4s}).first(retries));
        if (refusals < 0)
            QCOMPARE(s.log, QStringList({"[AuthManager] Found existing access token, verifying...",
                                         "[AuthManager] Session restored for reader@example.com"}));
        if (refusals == 3) {
            QVERIFY(s.log.contains(
                "[AuthManager] Refresh failed after retries: Failed to refresh authentication"));
            QVERIFY(!s.keychain.load(KeychainKey::refreshToken));
        }
    }

    void concurrentCallersShareOneRefresh()
    {
        Session s(*m_server);
        QVERIFY(s.signIn());
        const QString old = *s.keychain.load(KeychainKey::accessToken);
        QList<AccountResult<QString>> results;
        const auto collect = [&results](const AccountResult<QString> &r) { results << r; };
        s.auth->getValidAccessToken(this, collect);
        s.auth->getValidAccessToken(this, collect);
        QTRY_COMPARE(results.size(), 2);
        QVERIFY(results[0].ok() && results[1].ok());
        QCOMPARE(results[0].value(), results[1].value());
        QVERIFY(results[0].value() != old);
        QCOMPARE(requestsTo(*m_server, "/auth/v1/token"), 1);
        QVERIFY(s.log.contains("[AuthManager] Refresh already in progress, waiting for existing task..."));
        // Three refusals reach the caller as the session's error; the session itself stays.
        failNext("refresh", 400, 3);
        s.auth->getValidAccessToken(this, collect);
        QVERIFY(s.waitOutRetries(2));
        QTRY_COMPARE(results.size(), 3);
        QCOMPARE(describe(results[2].failure()), "Failed to refresh authentication");
        QVERIFY(isAuthError(results[2].failure()));
        QVERIFY(s.auth->isSignedIn());
    }

    void wake_data()
    {
        QTest::addColumn<bool>("signedIn");
        QTest::addColumn<int>("refusals");
        QTest::addColumn<QString>("lastLine");
        QTest::newRow("signed out") << false << 0 << "Not signed in, skipping wake validation";
        QTest::newRow("refreshed") << true << 0 << "Session refreshed successfully after wake";
        QTest::newRow("refused") << true << 3 << "Signing out, clearing tokens";
    }
    void wake()
    {
        QFETCH(bool, signedIn);
        QFETCH(int, refusals);
        QFETCH(QString, lastLine);
        Session s(*m_server);
        if (signedIn)
            QVERIFY(s.signIn());
        failNext("refresh", 400, refusals);
        s.log.clear();
        Q_EMIT s.wake.woke();
        QVERIFY(s.waitOutRetries(refusals ? 2 : 0));
        QVERIFY(s.waitForLog(lastLine));
        QCOMPARE(s.log.first(), "[AuthManager] System woke - validating session");
        QCOMPARE(s.auth->isSignedIn(), signedIn && !refusals);
        if (!signedIn)
            QCOMPARE(s.log.size(), 2);
    }

    void balanceFollowsTheSession()
    {
        Session s(*m_server, Session::AuthAndBalance);
        QVERIFY(!s.balance->isPolling());
        QVERIFY(s.signIn());
        QVERIFY(s.balance->isPolling());
        QTRY_COMPARE(s.balance->balanceSeconds(), 3660);
        QCOMPARE(s.balance->minutesRemaining(), 61);
        const qsizetype first = requestsTo(*m_server, "/api/credits/balance");
        // Throttled: 2 s later nothing leaves; 6 s after the first, one request does.
        s.clock.advance(2s);
        s.balance->refreshBalance();
        QVERIFY(!s.balance->isLoading());
        s.clock.advance(4s);
        s.balance->refreshBalance();
        QVERIFY(s.balance->isLoading());
        QTRY_VERIFY(!s.balance->isLoading());
        QCOMPARE(requestsTo(*m_server, "/api/credits/balance"), first + 1);
        // Local deductions, then the minute's poll brings the server's figure back.
        m_server->control("/dev/balance", {{"seconds", 100}});
        s.clock.advance(60s);
        QTRY_COMPARE(s.balance->balanceSeconds(), 100);
        const std::pair<double, std::pair<qint64, qint64>> deductions[] = {
            {29.5, {70, 1}}, {-0.5, {71, 1}}, {500, {0, 0}}};
        for (const auto &[seconds, left] : deductions) {
            s.balance->deductSeconds(seconds);
            QCOMPARE(std::pair(s.balance->balanceSeconds(), s.balance->minutesRemaining()), left);
        }
        s.clock.advance(60s);
        QTRY_COMPARE(s.balance->balanceSeconds(), 100);
        s.auth->signOut();
        QCOMPARE(s.balance->balanceSeconds(), 0);
        QVERIFY(!s.balance->isPolling());
    }

    // Whatever the service answers, the balance gets a clear error and the session stays.
    void hostileBalanceAnswers_data()
    {
        QTest::addColumn<QByteArray>("answer");
        QTest::addColumn<QString>("error");
        QTest::newRow("not JSON") << ok("<html>") << "The server's answer is not valid JSON";
        QTest::newRow("array") << ok("[1200, 20]") << "The server's answer is not a JSON object.";
        QTest::newRow("no minutes") << ok(R"({"balance_seconds":60})")
                                    << "The server's answer has no valid \"minutes_remaining\".";
        QTest::newRow("megabytes") << ok(QByteArray(3 << 20, ' ') + "{}")
                                   << "The server's answer is too large.";
        QTest::newRow("500") << ok("{}", "500 Internal Server Error") << "Server error (500)";
        QTest::newRow("401") << ok("{}", "401 Unauthorized") << "Please sign in again";
        QTest::newRow("redirect")
            << QByteArray("HTTP/1.1 302 Found\r\nLocation: /elsewhere\r\nContent-Length: 0\r\n\r\n")
            << "Server error (302)";
        QTest::newRow("closed at once") << QByteArray() << QString();
    }
    void hostileBalanceAnswers()
    {
        QFETCH(QByteArray, answer);
        QFETCH(QString, error);
        const auto service = cannedServer(answer);
        Session s(*m_server);
        QVERIFY(s.signIn());
        s.origin = QUrl("http://127.0.0.1:" + QString::number(service->serverPort()));
        s.startBalance();
        QTRY_VERIFY(s.balance->lastError());
        QVERIFY2(s.balance->lastError()->startsWith(error) && !s.balance->lastError()->isEmpty(),
                 qPrintable(*s.balance->lastError()));
        QCOMPARE(s.balance->balanceSeconds(), 0);
        QVERIFY(s.auth->isSignedIn());
    }

    void usageAndPurchase()
    {
        Session s(*m_server, Session::AuthAndBalance);
        s.balance->openPurchasePage();
        QCOMPARE(s.opened.last(), m_server->url());
        QVERIFY(s.signIn());
        std::optional<std::optional<UsageStatsResponse>> usage;
        s.balance->fetchUsageStats("month", this, [&](const auto &u) { usage = u; });
        QTRY_VERIFY(usage);
        QCOMPARE(usage->value_or(UsageStatsResponse{.narrations = -1}).narrations, 0);
        s.balance->openPurchasePage();
        QTRY_COMPARE(s.opened.size(), 3);
        const QUrl exchange = s.opened.last();
        const QRegularExpression expected(QRegularExpression::anchoredPattern(
            QRegularExpression::escape(m_server->url().toString()) +
            "/api/auth/token-exchange\\?code=[A-Za-z0-9_-]{8,}&next=%2Fpurchase"));
        QVERIFY2(expected.match(exchange.toString(QUrl::FullyEncoded)).hasMatch(),
                 qPrintable(exchange.toString()));
        QCOMPARE(DevServer::redirectOf(exchange).path(), "/purchase");
        failNext("generate-code", 500, 1);
        s.balance->openPurchasePage();
        QTRY_COMPARE(s.opened.size(), 4);
        QCOMPARE(s.opened.last(), m_server->url());
        QVERIFY(s.log.contains("Failed to generate exchange code: Invalid response from server"));
    }

    // A narration through the service with under a minute left locally: refused before any request
    // leaves. (What a narration costs, here and on the server, is tst_keychainkeyring's real session.)
    void serviceNarration()
    {
        Session s(*m_server, Session::AuthAndBalance);
        QTemporaryDir dir;
        UserDefaults defaults(dir.filePath("defaults.conf"));
        SessionAccount account(*s.auth, *s.balance);
        NoSelection noSelection;
        SpeechManager speech(
            SpeechManager::Services{&defaults, &s.keychain, &account, nullptr, &noSelection,
                                    std::make_unique<NullAudioSink>(NullAudioSink::Clock::RealTime), nullptr,
                                    m_server->url(), QUrl()});
        QVERIFY(s.signIn());
        QTRY_COMPARE(s.balance->balanceSeconds(), 600);
        s.balance->deductSeconds(541);
        speech.speak("Not this one.");
        QCOMPARE(speech.currentErrorDescription(), SpeechError::makeInsufficientBalance(0).description());
        QTest::qWait(200);
        QCOMPARE(requestsTo(*m_server, "/api/tts/stream"), 0);
    }
};

QTEST_GUILESS_MAIN(TestAccountSession)
#include "tst_accountsession.moc"
