// SPDX-License-Identifier: GPL-3.0-or-later
#include "account/BalanceManager.h"

#include "account/AccountDecoders.h"
#include "account/AccountHttp.h"
#include "account/AuthManager.h"
#include "core/Clock.h"
#include "core/Published.h"
#include "core/SharedInstance.h"
#include "platform/WakeMonitor.h"

#include <QDesktopServices>
#include <QNetworkAccessManager>
#include <QTextStream>

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

// The service's refusals of the balance and usage requests.
AccountFailure serviceRefusal(int status)
{
    if (status == 401)
        return BalanceError::make(BalanceError::unauthorized);
    return BalanceError::makeServerError(status);
}

} // namespace

BalanceManager::BalanceManager(Services services, QObject *parent)
    : QObject(parent)
    , m_services(std::move(services))
{
    Q_ASSERT(m_services.auth);
    if (!m_services.network)
        m_services.network = new QNetworkAccessManager(this);
    if (!m_services.clock)
        m_services.clock = &Clock::system();
    if (!m_services.openUrl)
        m_services.openUrl = [](const QUrl &url) { QDesktopServices::openUrl(url); };
    connect(m_services.auth, &AuthManager::stateChanged, this, &BalanceManager::followAuthState);
    if (m_services.wake) {
        connect(m_services.wake, &WakeMonitor::woke, this, [this] {
            if (!m_services.auth->isSignedIn())
                return;
            print(QStringLiteral("System woke - refreshing auth tokens"));
            refreshBalance();
        });
    }
    // The subscription sees the current state at once.
    followAuthState();
}

BalanceManager &BalanceManager::shared()
{
    return SharedInstance<BalanceManager>::get();
}

void BalanceManager::installShared(BalanceManager *manager)
{
    SharedInstance<BalanceManager>::install(manager);
}

void BalanceManager::print(const QString &line) const
{
    if (m_services.log) {
        m_services.log(line);
        return;
    }
    QTextStream(stdout) << line << Qt::endl;
}

QUrl BalanceManager::serviceUrl(const QString &path) const
{
    QUrl url = m_services.serviceOrigin;
    url.setPath(url.path() + path);
    return url;
}

// --- Following the session ---------------------------------------------------------------------------

void BalanceManager::followAuthState()
{
    if (m_services.auth->isSignedIn()) {
        if (m_pollGeneration == 0) {
            m_pollGeneration = ++m_nextPollGeneration;
            schedulePoll(m_pollGeneration);
        }
        refreshBalance();
        return;
    }
    m_pollGeneration = 0;
    setBalance(0, 0);
}

void BalanceManager::schedulePoll(quint64 generation)
{
    const auto interval = std::chrono::milliseconds(qint64(kRefreshIntervalSeconds * 1000));
    m_services.clock->callAfter(interval, this, [this, generation] {
        if (generation != m_pollGeneration)
            return;
        schedulePoll(generation);
        refreshBalance();
    });
}

// --- Balance -----------------------------------------------------------------------------------------

void BalanceManager::refreshBalance()
{
    if (!m_services.auth->isSignedIn()) {
        setBalance(0, 0);
        return;
    }
    if (m_isRefreshing)
        return;
    m_isRefreshing = true;
    const QDateTime now = m_services.clock->now();
    if (m_lastRefreshTime &&
        m_lastRefreshTime->msecsTo(now) < qint64(kMinimumRefreshIntervalSeconds * 1000)) {
        m_isRefreshing = false;
        return;
    }
    m_lastRefreshTime = now;
    setIsLoading(true);
    setLastError(std::nullopt);

    askService<BalanceAnswer>(
        "GET", QStringLiteral("/api/credits/balance"), this, serviceRefusal, decodeBalance,
        [this](const AccountResult<BalanceAnswer> &result) {
            if (result.ok()) {
                // Taken as sent: the server's minute figure is not recomputed.
                setBalance(result.value().balanceSeconds, result.value().minutesRemaining);
            } else if (isAuthError(result.failure())) {
                print(QStringLiteral("Auth error during balance refresh: ") + describe(result.failure()));
                m_services.auth->signOut();
            } else {
                // A 401 from the service itself lands here too: the session stays.
                setLastError(describe(result.failure()));
            }
            setIsLoading(false);
            m_isRefreshing = false;
            Q_EMIT refreshFinished();
        });
}

void BalanceManager::deductSeconds(double seconds)
{
    // std::llround rounds halves away from zero; out-of-range arguments saturate rather than wrap.
    const double clamped = std::clamp(seconds, -9.0e18, 9.0e18);
    const qint64 rounded = std::isnan(clamped) ? 0 : std::llround(clamped);
    qint64 balance = 0;
    if (__builtin_sub_overflow(m_balanceSeconds, rounded, &balance))
        balance = rounded > 0 ? 0 : std::numeric_limits<qint64>::max();
    balance = std::max<qint64>(balance, 0);
    setBalance(balance, balance / 60);
}

QString BalanceManager::formatBalance(qint64 seconds)
{
    const qint64 minutes = seconds / 60;
    if (seconds < 3600)
        return QStringLiteral("%1m").arg(minutes);
    const qint64 hours = seconds / 3600;
    const qint64 rest = minutes % 60;
    if (rest == 0)
        return QStringLiteral("%1h").arg(hours);
    return QStringLiteral("%1h %2m").arg(hours).arg(rest);
}

// --- Usage and purchase ------------------------------------------------------------------------------

void BalanceManager::sendWithToken(const QObject *context,
                                   std::function<AccountRequest(const QString &)> build,
                                   std::function<void(const AccountFailure &)> fail,
                                   std::function<void(const HttpAnswer &)> answered)
{
    const QPointer<const QObject> guard(context);
    m_services.auth->getValidAccessToken(
        this, [this, guard, build = std::move(build), fail = std::move(fail),
               answered = std::move(answered)](const AccountResult<QString> &token) {
            if (!guard)
                return;
            if (!token.ok())
                return fail(token.failure());
            sendAccountRequest(*m_services.network, build(token.value()), guard.data(), answered);
        });
}

template<typename T>
void BalanceManager::askService(const QByteArray &method, const QString &pathAndQuery, const QObject *context,
                                Refusal refusal, Decoder<T> decode,
                                std::function<void(const AccountResult<T> &)> done)
{
    const auto build = [this, method, pathAndQuery](const QString &token) {
        AccountRequest request;
        request.method = method;
        request.url = QUrl(m_services.serviceOrigin.toString() + pathAndQuery);
        request.headers = {{"Authorization", bearer(token)}};
        return request;
    };
    sendWithToken(
        context, build, [done](const AccountFailure &failure) { done(failure); },
        [refusal = std::move(refusal), decode = std::move(decode), done](const HttpAnswer &answer) {
            if (!answer.status)
                return done(answer.transportFailure());
            if (*answer.status != 200)
                return done(refusal(*answer.status));
            const AccountResult<QJsonObject> object = decodeObject(answer.body);
            if (!object.ok())
                return done(object.failure());
            done(decode(object.value()));
        });
}

void BalanceManager::fetchUsageStats(const QString &period, const QObject *context,
                                     std::function<void(const std::optional<UsageStatsResponse> &)> done)
{
    const QString query =
        QStringLiteral("/api/credits/usage?period=") + QString::fromLatin1(QUrl::toPercentEncoding(period));
    askService<UsageStatsResponse>(
        "GET", query, context, serviceRefusal, decodeUsage,
        [this, done = std::move(done)](const AccountResult<UsageStatsResponse> &result) {
            if (result.ok())
                return done(result.value());
            if (isAuthError(result.failure())) {
                print(QStringLiteral("Auth error during usage stats fetch: ") + describe(result.failure()));
                m_services.auth->signOut();
            } else {
                print(QStringLiteral("Failed to fetch usage stats: ") + describe(result.failure()));
            }
            done(std::nullopt);
        });
}

void BalanceManager::generateExchangeCode(
    const QObject *context, std::function<void(const AccountResult<GenerateCodeResponse> &)> done)
{
    // Any answer but 200 is simply not a code.
    const auto refusal = [](int) -> AccountFailure {
        return BalanceError::make(BalanceError::invalidResponse);
    };
    askService<GenerateCodeResponse>("POST", QStringLiteral("/api/auth/generate-code"), context, refusal,
                                     decodeCode, std::move(done));
}

QUrl BalanceManager::tokenExchangeUrl(const QString &code) const
{
    QUrl url = serviceUrl(QStringLiteral("/api/auth/token-exchange"));
    const QByteArray query =
        "code=" + QUrl::toPercentEncoding(code) + "&next=" + QUrl::toPercentEncoding("/purchase");
    url.setQuery(QString::fromLatin1(query), QUrl::StrictMode);
    return url;
}

QUrl BalanceManager::packagePurchaseUrl(const QUrl &serviceOrigin, const QString &code,
                                        const QString &packageId)
{
    // The query-allowed set keeps '/', '?' and '=' as they are, so the redirect path reads plainly in the
    // "next" value; what else the id holds is escaped.
    const QString next = QStringLiteral("/api/credits/purchase-redirect?package=") + packageId;
    const QString encodedNext = QString::fromLatin1(QUrl::toPercentEncoding(next, "!$&'()*+,;=:@/?"));
    QString origin = serviceOrigin.toString(QUrl::FullyEncoded);
    while (origin.endsWith(u'/'))
        origin.chop(1);
    const QString text = origin + QStringLiteral("/api/auth/token-exchange?code=") + code +
                         QStringLiteral("&next=") + encodedNext;
    return QUrl(text, QUrl::StrictMode);
}

void BalanceManager::requestPackagePurchaseUrl(const QString &packageId, const QObject *context,
                                               std::function<void(const AccountResult<QUrl> &)> done)
{
    const auto build = [this](const QString &token) {
        AccountRequest request;
        request.method = "POST";
        request.url = m_services.serviceOrigin.resolved(QUrl(QStringLiteral("/api/auth/generate-code")));
        request.headers = {{"Content-Type", "application/json"}, {"Authorization", bearer(token)}};
        return request;
    };
    sendWithToken(
        context, build, [done](const AccountFailure &failure) { done(failure); },
        [origin = m_services.serviceOrigin, packageId, done](const HttpAnswer &answer) {
            if (answer.status != 200)
                return done(PurchaseError::exchangeCodeFailed);
            const AccountResult<QJsonObject> object = decodeObject(answer.body);
            if (!object.ok())
                return done(object.failure());
            const std::optional<QString> code = stringMember(object.value(), QLatin1StringView("code"));
            if (!code)
                return done(missingMember(QLatin1StringView("code")));
            const QUrl url = packagePurchaseUrl(origin, *code, packageId);
            if (!url.isValid())
                return done(PurchaseError::invalidURL);
            done(url);
        });
}

void BalanceManager::openPurchasePage()
{
    if (!m_services.auth->isSignedIn()) {
        m_services.openUrl(m_services.serviceOrigin);
        return;
    }
    generateExchangeCode(this, [this](const AccountResult<GenerateCodeResponse> &result) {
        if (!result.ok()) {
            print(QStringLiteral("Failed to generate exchange code: ") + describe(result.failure()));
            m_services.openUrl(m_services.serviceOrigin);
            return;
        }
        m_services.openUrl(tokenExchangeUrl(result.value().code));
    });
}

// --- Published values --------------------------------------------------------------------------------

void BalanceManager::setBalance(qint64 seconds, qint64 minutes)
{
    if (m_balanceSeconds == seconds && m_minutesRemaining == minutes)
        return;
    m_balanceSeconds = seconds;
    m_minutesRemaining = minutes;
    Q_EMIT balanceChanged();
}

void BalanceManager::setIsLoading(bool loading)
{
    if (assignIfChanged(m_isLoading, loading))
        Q_EMIT isLoadingChanged();
}

void BalanceManager::setLastError(std::optional<QString> error)
{
    if (assignIfChanged(m_lastError, std::move(error)))
        Q_EMIT lastErrorChanged();
}
