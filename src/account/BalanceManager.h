// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "account/AccountError.h"

#include <QDateTime>
#include <QObject>
#include <QString>
#include <QUrl>

#include <functional>
#include <optional>

class AuthManager;
struct AccountRequest;
struct HttpAnswer;
class Clock;
class QNetworkAccessManager;
class WakeMonitor;

struct UsageStatsResponse
{
    qint64 narrations = 0;
    double minutes = 0;
    qint64 seconds = 0;
};

struct GenerateCodeResponse
{
    QString code;
    qint64 expiresIn = 0; // seconds
};

// The signed-in user's remaining speaking time as the service holds it: polled every minute while
// signed in, decremented locally after each narration, cleared on sign-out. Also the service's usage
// statistics and the signed-in purchase page. Lives on the GUI thread.
class BalanceManager : public QObject
{
    Q_OBJECT
    Q_PROPERTY(qint64 balanceSeconds READ balanceSeconds NOTIFY balanceChanged)
    Q_PROPERTY(qint64 minutesRemaining READ minutesRemaining NOTIFY balanceChanged)
    Q_PROPERTY(QString formattedBalance READ formattedBalance NOTIFY balanceChanged)
    Q_PROPERTY(bool isLoading READ isLoading NOTIFY isLoadingChanged)
    Q_PROPERTY(QString lastError READ lastErrorText NOTIFY lastErrorChanged)

public:
    static constexpr double kRefreshIntervalSeconds = 60.0;
    static constexpr double kMinimumRefreshIntervalSeconds = 5.0;

    struct Services
    {
        AuthManager *auth = nullptr;
        QNetworkAccessManager *network = nullptr; // none: one of its own
        Clock *clock = nullptr;                   // none: the system clock
        WakeMonitor *wake = nullptr;              // none: wake goes unnoticed
        QUrl serviceOrigin;
        std::function<void(const QUrl &)> openUrl; // none: the desktop's browser
        std::function<void(const QString &)> log;  // none: standard output
    };

    explicit BalanceManager(Services services, QObject *parent = nullptr);

    static BalanceManager &shared();
    static void installShared(BalanceManager *manager);

    qint64 balanceSeconds() const { return m_balanceSeconds; }
    qint64 minutesRemaining() const { return m_minutesRemaining; }
    bool isLoading() const { return m_isLoading; }
    std::optional<QString> lastError() const { return m_lastError; }
    QString lastErrorText() const { return m_lastError.value_or(QString()); }
    // Whether the minute poll is scheduled (exactly while signed in).
    bool isPolling() const { return m_pollGeneration != 0; }

    // Fetches and publishes the balance; at most one request per 5 s, and never two at once.
    Q_INVOKABLE void refreshBalance();
    void deductSeconds(double seconds);
    QString formattedBalance() const { return formatBalance(m_balanceSeconds); }
    static QString formatBalance(qint64 seconds);

    // The service's usage figures for "week", "month" or "all"; nothing on failure.
    void fetchUsageStats(const QString &period, const QObject *context,
                         std::function<void(const std::optional<UsageStatsResponse> &)> done);
    void generateExchangeCode(const QObject *context,
                              std::function<void(const AccountResult<GenerateCodeResponse> &)> done);
    // The purchase page, signed in through a one-time exchange code; the service's home page when that
    // cannot be had.
    Q_INVOKABLE void openPurchasePage();
    QUrl tokenExchangeUrl(const QString &code) const;
    // The browser page that buys `packageId` signed in: onboarding's own variant of the exchange-code
    // request (a JSON content type, only "code" read), whose failures are PurchaseErrors, the session's
    // errors or the body's. `done` runs while `context` lives.
    void requestPackagePurchaseUrl(const QString &packageId, const QObject *context,
                                   std::function<void(const AccountResult<QUrl> &)> done);
    // The token exchange that signs the browser in with `code` and then opens the purchase of
    // `packageId`. Invalid when the text does not parse as a URL.
    static QUrl packagePurchaseUrl(const QUrl &serviceOrigin, const QString &code, const QString &packageId);

Q_SIGNALS:
    void balanceChanged();
    void isLoadingChanged();
    void lastErrorChanged();
    // An admitted refresh has ended, whatever its outcome.
    void refreshFinished();

private:
    template<typename T> using Decoder = std::function<AccountResult<T>(const QJsonObject &)>;
    // What a status other than 200 means for a request.
    using Refusal = std::function<AccountFailure(int status)>;
    // Sends the request that `build` makes around a valid token; `answered` runs while `context` lives,
    // `fail` instead when no token can be had.
    void sendWithToken(const QObject *context, std::function<AccountRequest(const QString &token)> build,
                       std::function<void(const AccountFailure &)> fail,
                       std::function<void(const HttpAnswer &)> answered);
    // A service request with a valid token; `done` runs while `context` lives.
    template<typename T>
    void askService(const QByteArray &method, const QString &pathAndQuery, const QObject *context,
                    Refusal refusal, Decoder<T> decode, std::function<void(const AccountResult<T> &)> done);

    void followAuthState();
    void schedulePoll(quint64 generation);
    void setBalance(qint64 seconds, qint64 minutes);
    void setIsLoading(bool loading);
    void setLastError(std::optional<QString> error);
    void print(const QString &line) const;
    QUrl serviceUrl(const QString &path) const;

    Services m_services;
    qint64 m_balanceSeconds = 0;
    qint64 m_minutesRemaining = 0;
    bool m_isLoading = false;
    std::optional<QString> m_lastError;
    std::optional<QDateTime> m_lastRefreshTime;
    bool m_isRefreshing = false;
    // Non-zero while the poll runs; a tick of an older poll finds a different number and ends.
    quint64 m_pollGeneration = 0;
    quint64 m_nextPollGeneration = 0;
};
