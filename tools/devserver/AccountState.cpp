// SPDX-License-Identifier: GPL-3.0-or-later
#include "AccountState.h"

#include "Jwt.h"

#include <QJsonObject>
#include <QRandomGenerator>

#include <algorithm>

namespace {

// The dev server has one user; a fixed id lets a test recognise it.
constexpr const char *userId = "4f6b1a52-9c3e-4d7a-b8e1-2a0c5d9f7e31";

std::string randomText(std::size_t length)
{
    static constexpr std::string_view urlSafe =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    std::string text(length, '\0');
    for (char &c : text)
        c = urlSafe[QRandomGenerator::system()->bounded(static_cast<quint32>(urlSafe.size()))];
    return text;
}

QByteArray randomSecret()
{
    QByteArray secret(32, '\0');
    QRandomGenerator::system()->fillRange(reinterpret_cast<quint32 *>(secret.data()),
                                          static_cast<qsizetype>(secret.size() / sizeof(quint32)));
    return secret;
}

std::int64_t secondsSinceEpoch(std::chrono::system_clock::time_point time)
{
    return std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
}

std::size_t indexOf(AccountState::Route route)
{
    return static_cast<std::size_t>(route);
}

} // namespace

AccountState::AccountState(const Options &options)
    : m_secret(randomSecret())
    , m_anonKey(options.anonKey)
    , m_user{userId, options.userEmail}
    , m_tokenTtl(options.tokenTtlSeconds)
    , m_balance(options.balanceSeconds)
{
    if (options.failRefresh > 0)
        m_failures[indexOf(Route::Refresh)] = {400, options.failRefresh};
}

std::optional<AccountState::Route> AccountState::routeNamed(std::string_view name)
{
    static const std::map<std::string_view, Route> routes = {
        {"refresh", Route::Refresh},
        {"user", Route::User},
        {"balance", Route::Balance},
        {"usage", Route::Usage},
        {"generate-code", Route::GenerateCode},
        {"tts", Route::Tts},
        {"speech", Route::Speech},
    };
    const auto found = routes.find(name);
    return found == routes.end() ? std::nullopt : std::optional(found->second);
}

std::optional<AccountState::Period> AccountState::periodNamed(std::string_view name)
{
    if (name == "week")
        return Period::Week;
    if (name == "month")
        return Period::Month;
    if (name == "all")
        return Period::All;
    return std::nullopt;
}

AccountState::Session AccountState::signIn()
{
    std::lock_guard lock(m_mutex);
    return issueSession();
}

std::optional<AccountState::Session> AccountState::refresh(const std::string &refreshToken)
{
    std::lock_guard lock(m_mutex);
    if (m_refreshTokens.erase(refreshToken) == 0)
        return std::nullopt;
    ++m_refreshes;
    return issueSession();
}

AccountState::Session AccountState::issueSession()
{
    const std::int64_t issuedAt = secondsSinceEpoch(std::chrono::system_clock::now());
    Session session;
    session.expiresIn = m_tokenTtl;
    session.expiresAt = issuedAt + m_tokenTtl;
    const QJsonObject claims{
        {"sub", QString::fromStdString(m_user.id)},
        {"email", QString::fromStdString(m_user.email)},
        {"aud", "authenticated"},
        {"role", "authenticated"},
        {"iat", qint64(issuedAt)},
        {"exp", qint64(session.expiresAt)},
        // Two sessions issued within the same second must still differ.
        {"jti", QString::fromStdString(randomText(22))},
    };
    session.accessToken = Jwt::sign(claims, m_secret);
    session.refreshToken = randomText(32);
    m_refreshTokens.insert(session.refreshToken);
    return session;
}

std::optional<AccountState::User> AccountState::verify(std::string_view accessToken) const
{
    const std::optional<QJsonObject> claims = Jwt::verify(accessToken, m_secret);
    if (!claims)
        return std::nullopt;
    const QJsonValue expiry = claims->value("exp");
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    if (!expiry.isDouble() || std::chrono::milliseconds(expiry.toInteger() * 1000) <= now)
        return std::nullopt;
    return User{claims->value("sub").toString().toStdString(),
                claims->value("email").toString().toStdString()};
}

std::string AccountState::generateCode()
{
    const std::string code = randomText(32);
    std::lock_guard lock(m_mutex);
    m_codes.emplace(code, std::chrono::steady_clock::now() + codeLifetime);
    return code;
}

bool AccountState::redeemCode(const std::string &code)
{
    std::lock_guard lock(m_mutex);
    const auto found = m_codes.find(code);
    if (found == m_codes.end())
        return false;
    const bool live = std::chrono::steady_clock::now() < found->second;
    m_codes.erase(found);
    return live;
}

std::int64_t AccountState::balanceSeconds() const
{
    std::lock_guard lock(m_mutex);
    return m_balance;
}

void AccountState::setBalanceSeconds(std::int64_t seconds)
{
    std::lock_guard lock(m_mutex);
    m_balance = seconds;
}

void AccountState::recordNarration(std::int64_t seconds)
{
    std::lock_guard lock(m_mutex);
    m_balance = std::max<std::int64_t>(0, m_balance - seconds);
    m_narrations.push_back({std::chrono::system_clock::now(), seconds});
}

AccountState::Usage AccountState::usage(Period period) const
{
    using Days = std::chrono::days;
    const auto now = std::chrono::system_clock::now();
    const auto since = period == Period::Week    ? now - Days(7)
                       : period == Period::Month ? now - Days(30)
                                                 : std::chrono::system_clock::time_point::min();
    std::lock_guard lock(m_mutex);
    Usage usage;
    for (const Narration &narration : m_narrations) {
        if (narration.at >= since) {
            ++usage.narrations;
            usage.seconds += narration.seconds;
        }
    }
    return usage;
}

void AccountState::injectFailure(Route route, int status, int count, int after)
{
    std::lock_guard lock(m_mutex);
    m_failures[indexOf(route)] = {status, count, after};
}

std::optional<int> AccountState::takeFailure(Route route)
{
    std::lock_guard lock(m_mutex);
    Failure &failure = m_failures[indexOf(route)];
    if (failure.count <= 0)
        return std::nullopt;
    if (failure.after > 0) {
        --failure.after;
        return std::nullopt;
    }
    --failure.count;
    return failure.status;
}

int AccountState::pendingFailures(Route route) const
{
    std::lock_guard lock(m_mutex);
    return m_failures[indexOf(route)].count;
}

int AccountState::refreshes() const
{
    std::lock_guard lock(m_mutex);
    return m_refreshes;
}
