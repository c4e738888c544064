// SPDX-License-Identifier: GPL-3.0-or-later
#include "account/AuthManager.h"
#include "account/BalanceManager.h"
#include "account/KeychainHelper.h"
#include "platform/null/MemorySecretStore.h"

#include <QTest>

namespace {

QByteArray base64Url(const QByteArray &bytes)
{
    return bytes.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals);
}

QString jwtWithPayload(const QByteArray &payload)
{
    return QString::fromLatin1(base64Url(R"({"alg":"HS256","typ":"JWT"})") + '.' + base64Url(payload) +
                               ".c2ln");
}

using Params = QHash<QString, QString>;

const QDateTime kNow = QDateTime::fromSecsSinceEpoch(1'800'000'000, Qt::UTC);

struct Auth
{
    KeychainHelper keychain{"test", std::make_unique<MemorySecretStore>()};
    QStringList log;
    std::function<void(const QString &)> addLog = [this](const QString &line) { log << line; };
    // Positional: keychain, network, clock, wake, auth and service origins, anon key, browser, log.
    AuthManager manager{
        AuthManager::Services{&keychain, nullptr, nullptr, nullptr, QUrl("https://auth.example.org"),
                              QUrl("https://service.example.org"), QString(), nullptr, addLog}};
};

} // namespace

class TestAccountRules : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void tokenExpiry_data()
    {
        QTest::addColumn<QString>("token");
        QTest::addColumn<int>("margin");
        QTest::addColumn<bool>("expired");
        const auto exp = [](qint64 at) { return jwtWithPayload("{\"exp\":" + QByteArray::number(at) + '}'); };
        const qint64 now = kNow.toSecsSinceEpoch();
        QTest::newRow("exactly at the margin") << exp(now + 60) << 60 << false;
        QTest::newRow("wake margin") << exp(now + 299) << 300 << true;
        QTest::newRow("payload needs padding")
            << jwtWithPayload(R"({"exp":1900000000,"x":"a"})") << 60 << false;
        QTest::newRow("huge exp") << jwtWithPayload(R"({"exp":1e300})") << 60 << false;
        QTest::newRow("exp is a string") << jwtWithPayload(R"({"exp":"1900000000"})") << 60 << true;
        QTest::newRow("payload is an array") << jwtWithPayload("[1900000000]") << 60 << true;
        QTest::newRow("bad base64") << "a.!!!!.c" << 60 << true;
    }
    void tokenExpiry()
    {
        QFETCH(QString, token);
        QFETCH(int, margin);
        QTEST(AuthManager::isTokenExpired(token, margin, kNow), "expired");
    }

    void fragmentParsing_data()
    {
        QTest::addColumn<QString>("fragment");
        QTest::addColumn<Params>("expected");
        QTest::newRow("several =") << "a=b=c&d=1" << Params{{"d", "1"}};
        QTest::newRow("empty key and value") << "=&a=" << Params{{"", ""}, {"a", ""}};
        QTest::newRow("percent escapes") << "a=x%2By%3D%26z%20" << Params{{"a", "x+y=&z "}};
        QTest::newRow("plus stays") << "a=x+y" << Params{{"a", "x+y"}};
        QTest::newRow("UTF-8 escape") << "a=%C3%A9" << Params{{"a", "\u00e9"}};
        QTest::newRow("bad escape kept") << "a=50%zz&b=%4" << Params{{"a", "50%zz"}, {"b", "%4"}};
        QTest::newRow("non-UTF-8 kept") << "a=%FF%FE" << Params{{"a", "%FF%FE"}};
        QTest::newRow("later duplicate wins") << "a=1&a=2" << Params{{"a", "2"}};
    }
    void fragmentParsing()
    {
        QFETCH(QString, fragment);
        QTEST(AuthManager::parseFragment(fragment), "expected");
    }

    // A callback whose fragment lacks a token, or is empty.
    void callbacksWithoutTokens_data()
    {
        QTest::addColumn<QUrl>("url");
        QTest::newRow("access token only") << QUrl("quillvox://auth/callback#access_token=a");
        QTest::newRow("empty fragment") << QUrl("quillvox://auth/callback#");
    }
    void callbacksWithoutTokens()
    {
        QFETCH(QUrl, url);
        Auth auth;
        auth.manager.handleCallback(url);
        QCOMPARE(auth.manager.currentErrorDescription(), "Authentication failed: Missing tokens in callback");
        QCOMPARE(auth.manager.state(), AuthManager::State::signedOut);
        QVERIFY(!auth.keychain.load(KeychainKey::accessToken));
        QCOMPARE(auth.log.mid(0, 2), (QStringList{"[AuthManager] No access token found, user is signed out",
                                                  "[AuthManager] Received auth callback"}));
    }

    void formattedBalance_data()
    {
        QTest::addColumn<qint64>("seconds");
        QTest::addColumn<QString>("text");
        for (const auto &[seconds, text] : std::initializer_list<std::pair<qint64, const char *>>{
                 {0, "0m"}, {3599, "59m"}, {3600, "1h"}, {3660, "1h 1m"}, {7199, "1h 59m"}, {7200, "2h"}})
            QTest::newRow(qPrintable(QString::number(seconds))) << seconds << QString::fromLatin1(text);
    }
    void formattedBalance()
    {
        QFETCH(qint64, seconds);
        QTEST(BalanceManager::formatBalance(seconds), "text");
    }
};

QTEST_GUILESS_MAIN(TestAccountRules)
#include "tst_accountrules.moc"
