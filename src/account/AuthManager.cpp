// SPDX-License-Identifier: GPL-3.0-or-later
#include "account/AuthManager.h"

#include "account/AccountDecoders.h"
#include "account/AccountHttp.h"
#include "account/KeychainHelper.h"
#include "core/Clock.h"
#include "core/Published.h"
#include "core/SharedInstance.h"
#include "platform/WakeMonitor.h"

#include <QDesktopServices>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QTextStream>

#include <cmath>

namespace {} // namespace

AuthManager::AuthManager(Services services, QObject *parent)
    : QObject(parent)
    , m_services(std::move(services))
{
    Q_ASSERT(m_services.keychain);
    if (!m_services.network)
        m_services.network = new QNetworkAccessManager(this);
    if (!m_services.clock)
        m_services.clock = &Clock::system();
    if (!m_services.openUrl)
        m_services.openUrl = [](const QUrl &url) { QDesktopServices::openUrl(url); };
    restoreSession();
    if (m_services.wake)
        connect(m_services.wake, &WakeMonitor::woke, this, &AuthManager::validateAfterWake);
}

AuthManager &AuthManager::shared()
{
    return SharedInstance<AuthManager>::get();
}

bool AuthManager::hasShared()
{
    return SharedInstance<AuthManager>::has();
}

void AuthManager::installShared(AuthManager *manager)
{
    SharedInstance<AuthManager>::install(manager);
}

QString AuthManager::stateName() const
{
    switch (m_state) {
    case State::unknown:
        return QStringLiteral("unknown");
    case State::signedOut:
        return QStringLiteral("signedOut");
    case State::signedIn:
        return QStringLiteral("signedIn");
    }
    Q_UNREACHABLE();
}

void AuthManager::log(const QString &message) const
{
    const QString line = QStringLiteral("[AuthManager] ") + message;
    if (m_services.log) {
        m_services.log(line);
        return;
    }
    QTextStream(stdout) << line << Qt::endl;
}

QString AuthManager::redirectTarget() const
{
    return m_services.serviceOrigin.toString(QUrl::FullyEncoded) + QStringLiteral("/auth/app-callback");
}

// --- Tokens ------------------------------------------------------------------------------------------

bool AuthManager::isTokenExpired(QStringView token, qint64 marginSeconds, const QDateTime &now)
{
    const QList<QStringView> parts = token.split(u'.');
    if (parts.size() != 3)
        return true;
    QByteArray payload = parts[1].toLatin1();
    while (payload.size() % 4 != 0)
        payload.append('=');
    const auto decoded = QByteArray::fromBase64Encoding(payload, QByteArray::Base64UrlEncoding |
                                                                     QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded)
        return true;
    const QJsonDocument claims = QJsonDocument::fromJson(*decoded);
    if (!claims.isObject())
        return true;
    const QJsonValue exp = claims.object().value(QLatin1StringView("exp"));
    if (!exp.isDouble() || !std::isfinite(exp.toDouble()))
        return true;
    // Compared in seconds as floating point, so that a huge "exp" cannot overflow.
    const double deadline = double(now.toSecsSinceEpoch()) + double(marginSeconds);
    return exp.toDouble() < deadline;
}

QHash<QString, QString> AuthManager::parseFragment(const QString &fragment)
{
    QHash<QString, QString> params;
    const QStringList pieces = fragment.split(u'&', Qt::SkipEmptyParts);
    for (const QString &piece : pieces) {
        const QStringList keyValue = piece.split(u'=');
        // A value that itself contains "=" is dropped with its key.
        if (keyValue.size() != 2)
            continue;
        const QString &raw = keyValue[1];
        // Percent-decoding fails on an escape that is not two hex digits or on bytes that are not UTF-8;
        // the value is then kept as it came.
        QString value = raw;
        const auto isHexDigit = [](QChar c) {
            return (c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'f') || (c >= u'A' && c <= u'F');
        };
        bool escapesValid = true;
        for (qsizetype i = raw.indexOf(u'%'); i >= 0; i = raw.indexOf(u'%', i + 1)) {
            if (i + 2 >= raw.size() || !isHexDigit(raw[i + 1]) || !isHexDigit(raw[i + 2])) {
                escapesValid = false;
                break;
            }
        }
        if (escapesValid) {
            const QByteArray bytes = QByteArray::fromPercentEncoding(raw.toUtf8());
            const QString decoded = QString::fromUtf8(bytes);
            if (decoded.toUtf8() == bytes)
                value = decoded;
        }
        params.insert(keyValue[0], value);
    }
    return params;
}

// --- Restore, wake and sign-out ----------------------------------------------------------------------

void AuthManager::restoreSession()
{
    const std::optional<QString> accessToken = m_services.keychain->loadSecret(KeychainKey::accessToken);
    if (!accessToken) {
        log(QStringLiteral("No access token found, user is signed out"));
        setState(State::signedOut);
        return;
    }
    log(QStringLiteral("Found existing access token, verifying..."));
    fetchUser(*accessToken, [this](const AccountResult<SupabaseUser> &user) {
        if (user.ok()) {
            log(QStringLiteral("Session restored for ") + user.value().email);
            setState(State::signedIn, user.value());
            return;
        }
        log(QStringLiteral("Token verification failed: ") + describe(user.failure()));
        const std::optional<QString> refreshToken =
            m_services.keychain->loadSecret(KeychainKey::refreshToken);
        if (!refreshToken) {
            log(QStringLiteral("No refresh token available, signing out"));
            signOut();
            return;
        }
        log(QStringLiteral("Attempting to refresh session..."));
        refreshWithRetry(*refreshToken, 1, [this](const AccountResult<QString> &result) {
            if (result.ok())
                return;
            log(QStringLiteral("Refresh failed after retries: ") + describe(result.failure()));
            signOut();
        });
    });
}

void AuthManager::validateAfterWake()
{
    log(QStringLiteral("System woke - validating session"));
    if (m_state != State::signedIn) {
        log(QStringLiteral("Not signed in, skipping wake validation"));
        return;
    }
    const std::optional<QString> accessToken = m_services.keychain->loadSecret(KeychainKey::accessToken);
    if (!accessToken) {
        log(QStringLiteral("No access token after wake, signing out"));
        signOut();
        return;
    }
    if (!isTokenExpired(*accessToken, kWakeTokenMarginSeconds, m_services.clock->now())) {
        log(QStringLiteral("Token still valid after wake"));
        return;
    }
    log(QStringLiteral("Token expired or expiring soon after wake, refreshing..."));
    const std::optional<QString> refreshToken = m_services.keychain->loadSecret(KeychainKey::refreshToken);
    if (!refreshToken) {
        log(QStringLiteral("No refresh token available after wake, signing out"));
        signOut();
        return;
    }
    // Not through the shared refresh: a wake refresh may overlap a token request.
    refreshWithRetry(*refreshToken, 1, [this](const AccountResult<QString> &result) {
        if (result.ok()) {
            log(QStringLiteral("Session refreshed successfully after wake"));
            return;
        }
        log(QStringLiteral("Failed to refresh session after wake: ") + describe(result.failure()));
        signOut();
    });
}

void AuthManager::signOut()
{
    log(QStringLiteral("Signing out, clearing tokens"));
    m_services.keychain->remove(KeychainKey::accessToken);
    m_services.keychain->remove(KeychainKey::refreshToken);
    setState(State::signedOut);
    setCurrentError(std::nullopt);
}

// --- Sign-in -----------------------------------------------------------------------------------------

QUrl AuthManager::authorizeUrl(bool google) const
{
    QUrl url = m_services.authOrigin;
    url.setPath(url.path() + QStringLiteral("/auth/v1/authorize"));
    // Exactly these two items, in this order; the tokens come back in the redirect's fragment.
    const QByteArray query = "provider=" + QByteArray(google ? "google" : "apple") +
                             "&redirect_to=" + QUrl::toPercentEncoding(redirectTarget());
    url.setQuery(QString::fromLatin1(query), QUrl::StrictMode);
    return url;
}

void AuthManager::signIn(bool google)
{
    setIsLoading(true);
    setCurrentError(std::nullopt);
    const QUrl url = authorizeUrl(google);
    if (!url.isValid() || url.scheme().isEmpty() || url.host().isEmpty()) {
        setIsLoading(false);
        return;
    }
    m_services.openUrl(url);
    m_services.clock->callAfter(std::chrono::seconds(kSignInWatchdogSeconds), this, [this] {
        // Nothing else is reset and no error is set: the user may simply have closed the browser.
        if (m_isLoading)
            setIsLoading(false);
    });
}

void AuthManager::handleCallback(const QUrl &url)
{
    log(QStringLiteral("Received auth callback"));
    setIsLoading(false);
    if (!url.hasFragment()) {
        log(QStringLiteral("Auth callback missing fragment"));
        setCurrentError(AuthError::makeAuthenticationFailed(QStringLiteral("No tokens in callback")));
        return;
    }
    const QHash<QString, QString> params = parseFragment(url.fragment(QUrl::FullyEncoded));
    const auto accessToken = params.constFind(QStringLiteral("access_token"));
    const auto refreshToken = params.constFind(QStringLiteral("refresh_token"));
    if (accessToken == params.cend() || refreshToken == params.cend()) {
        log(QStringLiteral("Auth callback missing tokens in params"));
        setCurrentError(AuthError::makeAuthenticationFailed(QStringLiteral("Missing tokens in callback")));
        return;
    }
    log(QStringLiteral("Saving auth tokens from callback"));
    m_services.keychain->save(*accessToken, KeychainKey::accessToken);
    m_services.keychain->save(*refreshToken, KeychainKey::refreshToken);
    fetchUser(*accessToken, [this](const AccountResult<SupabaseUser> &user) {
        if (user.ok()) {
            log(QStringLiteral("Sign-in complete for ") + user.value().email);
            setState(State::signedIn, user.value());
            return;
        }
        // The tokens stay stored and the state stays as it was.
        log(QStringLiteral("Failed to fetch user info after callback: ") + describe(user.failure()));
        setCurrentError(AuthError::makeAuthenticationFailed(QStringLiteral("Failed to fetch user info")));
    });
}

// --- Requests ----------------------------------------------------------------------------------------

void AuthManager::fetchUser(const QString &accessToken, UserCallback done)
{
    AccountRequest request;
    request.url = m_services.authOrigin;
    request.url.setPath(request.url.path() + QStringLiteral("/auth/v1/user"));
    request.headers = {{"Authorization", bearer(accessToken)}, {"apikey", m_services.anonKey.toUtf8()}};
    sendAccountRequest(
        *m_services.network, request, this, [done = std::move(done)](const HttpAnswer &answer) {
            if (!answer.status)
                return done(answer.transportFailure());
            if (*answer.status != 200)
                return done(AuthError::makeAuthenticationFailed(QStringLiteral("Failed to fetch user")));
            const AccountResult<QJsonObject> object = decodeObject(answer.body);
            if (!object.ok())
                return done(object.failure());
            done(decodeUser(object.value()));
        });
}

void AuthManager::refreshSession(const QString &refreshToken, TokenCallback done)
{
    AccountRequest request;
    request.method = "POST";
    request.url = m_services.authOrigin;
    request.url.setPath(request.url.path() + QStringLiteral("/auth/v1/token"));
    request.url.setQuery(QStringLiteral("grant_type=refresh_token"));
    const QByteArray anonKey = m_services.anonKey.toUtf8();
    request.headers = {{"Content-Type", "application/json"},
                       {"Authorization", bearer(m_services.anonKey)},
                       {"apikey", anonKey}};
    request.body = QJsonDocument(QJsonObject{{QStringLiteral("refresh_token"), refreshToken}})
                       .toJson(QJsonDocument::Compact);
    sendAccountRequest(
        *m_services.network, request, this, [this, done = std::move(done)](const HttpAnswer &answer) {
            if (!answer.status)
                return done(answer.transportFailure());
            if (*answer.status != 200)
                return done(AuthError::make(AuthError::tokenRefreshFailed));
            const AccountResult<QJsonObject> object = decodeObject(answer.body);
            if (!object.ok())
                return done(object.failure());
            const AccountResult<SessionTokens> tokens = decodeSessionTokens(object.value());
            if (!tokens.ok())
                return done(tokens.failure());
            const QString access = tokens.value().accessToken;
            // The refresh token rotates: the one just used is no longer valid.
            m_services.keychain->save(access, KeychainKey::accessToken);
            m_services.keychain->save(tokens.value().refreshToken, KeychainKey::refreshToken);
            fetchUser(access, [this, token = access, done](const AccountResult<SupabaseUser> &user) {
                if (!user.ok())
                    return done(user.failure());
                log(QStringLiteral("Session refreshed for ") + user.value().email);
                setState(State::signedIn, user.value());
                done(token);
            });
        });
}

void AuthManager::refreshWithRetry(const QString &refreshToken, int attempt, TokenCallback done)
{
    log(QStringLiteral("Refresh attempt %1/%2").arg(attempt).arg(kRefreshAttempts));
    refreshSession(refreshToken, [this, refreshToken, attempt, done](const AccountResult<QString> &result) {
        if (result.ok()) {
            log(QStringLiteral("Refresh succeeded on attempt %1").arg(attempt));
            return done(result);
        }
        log(QStringLiteral("Refresh attempt %1 failed: ").arg(attempt) + describe(result.failure()));
        if (attempt >= kRefreshAttempts)
            return done(result);
        const int waitSeconds = 1 << attempt;
        log(QStringLiteral("Waiting %1 seconds before retry...").arg(waitSeconds));
        m_services.clock->callAfter(
            std::chrono::seconds(waitSeconds), this,
            [this, refreshToken, attempt, done] { refreshWithRetry(refreshToken, attempt + 1, done); });
    });
}

void AuthManager::getValidAccessToken(const QObject *context, TokenCallback done)
{
    const std::optional<QString> accessToken = m_services.keychain->loadSecret(KeychainKey::accessToken);
    if (!accessToken) {
        log(QStringLiteral("getValidAccessToken: Not signed in (no access token)"));
        return done(AuthError::makeAuthenticationFailed(QStringLiteral("Not signed in")));
    }
    if (!isTokenExpired(*accessToken, kTokenMarginSeconds, m_services.clock->now())) {
        log(QStringLiteral("Token valid, no refresh needed"));
        return done(*accessToken);
    }
    log(QStringLiteral("Token expired or expiring soon, need to refresh"));
    if (m_refreshInFlight) {
        log(QStringLiteral("Refresh already in progress, waiting for existing task..."));
        m_refreshWaiters.append({QPointer<const QObject>(context), context != nullptr, std::move(done)});
        return;
    }
    const std::optional<QString> refreshToken = m_services.keychain->loadSecret(KeychainKey::refreshToken);
    if (!refreshToken) {
        // Not a sign-out: the caller decides.
        log(QStringLiteral("No refresh token available"));
        return done(AuthError::makeAuthenticationFailed(QStringLiteral("No refresh token")));
    }
    m_refreshInFlight = true;
    m_refreshWaiters.append({QPointer<const QObject>(context), context != nullptr, std::move(done)});
    refreshWithRetry(*refreshToken, 1,
                     [this](const AccountResult<QString> &result) { finishSharedRefresh(result); });
}

void AuthManager::finishSharedRefresh(const AccountResult<QString> &result)
{
    m_refreshInFlight = false;
    const auto waiters = std::exchange(m_refreshWaiters, {});
    for (const RefreshWaiter &waiter : waiters) {
        if (!waiter.guarded || waiter.context)
            waiter.done(result);
    }
}

// --- Published values --------------------------------------------------------------------------------

void AuthManager::setState(State state, std::optional<SupabaseUser> user)
{
    // Published on every assignment, as observers re-read the session after each refresh.
    m_state = state;
    m_user = state == State::signedIn ? std::move(user) : std::nullopt;
    Q_EMIT stateChanged();
}

void AuthManager::setIsLoading(bool loading)
{
    if (assignIfChanged(m_isLoading, loading))
        Q_EMIT isLoadingChanged();
}

void AuthManager::setCurrentError(std::optional<AuthError> error)
{
    if (assignIfChanged(m_currentError, std::move(error)))
        Q_EMIT currentErrorChanged();
}
