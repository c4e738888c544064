// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "Options.h"

#include <QByteArray>

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

// Everything the auth backend and the account service remember, in memory only: the signed-in user's
// tokens, one-time codes, the balance, usage, and the failures /dev/fail has asked for. Route handlers
// run on cpp-httplib's worker threads, so every member takes the one lock.
class AccountState
{
public:
    // The routes /dev/fail can make fail.
    enum class Route { Refresh, User, Balance, Usage, GenerateCode, Tts, Speech };
    enum class Period { Week, Month, All };

    struct User
    {
        std::string id;
        std::string email;
    };
    struct Session
    {
        std::string accessToken;
        std::string refreshToken;
        std::int64_t expiresIn = 0;
        // Seconds since the epoch.
        std::int64_t expiresAt = 0;
    };
    struct Usage
    {
        std::int64_t narrations = 0;
        std::int64_t seconds = 0;
    };

    static constexpr std::chrono::seconds codeLifetime{300};

    explicit AccountState(const Options &options);

    static std::optional<Route> routeNamed(std::string_view name);
    static std::optional<Period> periodNamed(std::string_view name);

    const std::string &anonKey() const { return m_anonKey; }
    const User &user() const { return m_user; }

    // A new session for the one user, as after a sign-in.
    Session signIn();
    // Spends the refresh token on a new session; nothing when it is unknown or already spent.
    std::optional<Session> refresh(const std::string &refreshToken);
    // The user an access token was issued to, when this process signed it and it has not expired.
    std::optional<User> verify(std::string_view accessToken) const;

    std::string generateCode();
    // True once per code generated within its lifetime.
    bool redeemCode(const std::string &code);

    std::int64_t balanceSeconds() const;
    void setBalanceSeconds(std::int64_t seconds);
    // Charges a streamed narration to the balance, which stops at zero, and counts it as usage.
    void recordNarration(std::int64_t seconds);
    Usage usage(Period period) const;

    // After the next `after` requests of the route, count requests answer status instead; count 0 clears.
    void injectFailure(Route route, int status, int count, int after = 0);
    // The status an injected failure asks this request to answer with, using it up.
    std::optional<int> takeFailure(Route route);
    int pendingFailures(Route route) const;
    int refreshes() const;

private:
    struct Failure
    {
        int status = 0;
        int count = 0;
        int after = 0;
    };
    struct Narration
    {
        std::chrono::system_clock::time_point at;
        std::int64_t seconds = 0;
    };

    Session issueSession(); // m_mutex held

    const QByteArray m_secret;
    const std::string m_anonKey;
    const User m_user;
    const std::int64_t m_tokenTtl;

    mutable std::mutex m_mutex;
    std::set<std::string> m_refreshTokens;
    std::map<std::string, std::chrono::steady_clock::time_point> m_codes;
    std::int64_t m_balance;
    std::vector<Narration> m_narrations;
    std::array<Failure, 7> m_failures{};
    int m_refreshes = 0;
};
