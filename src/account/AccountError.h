// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "account/PurchaseError.h"

#include <QString>

#include <utility>
#include <variant>

// What the session itself reports: sign-in, refresh and token failures.
class AuthError
{
public:
    enum Case { networkError, authenticationFailed, invalidURL, tokenRefreshFailed, userCancelled };

    static AuthError makeNetworkError(QString detail) { return {networkError, std::move(detail)}; }
    static AuthError makeAuthenticationFailed(QString detail)
    {
        return {authenticationFailed, std::move(detail)};
    }
    static AuthError make(Case kind) { return {kind, {}}; }

    Case kind() const { return m_kind; }
    // For networkError and authenticationFailed: the reason after the prefix.
    QString detail() const { return m_detail; }
    QString description() const;
    bool operator==(const AuthError &) const = default;

private:
    AuthError(Case kind, QString detail)
        : m_kind(kind)
        , m_detail(std::move(detail))
    {}

    Case m_kind;
    QString m_detail;
};

// What the credit endpoints report.
class BalanceError
{
public:
    enum Case { serverError, invalidResponse, unauthorized };

    static BalanceError makeServerError(int status) { return {serverError, status}; }
    static BalanceError make(Case kind) { return {kind, 0}; }

    Case kind() const { return m_kind; }
    int status() const { return m_status; }
    QString description() const;
    bool operator==(const BalanceError &) const = default;

private:
    BalanceError(Case kind, int status)
        : m_kind(kind)
        , m_status(status)
    {}

    Case m_kind;
    int m_status;
};

// A request that never got an HTTP answer (refused, timed out, reset), passed on as the network
// layer described it.
struct TransportError
{
    QString message;
    bool operator==(const TransportError &) const = default;
};

// An HTTP answer whose body is not the JSON that was expected.
struct DecodingError
{
    QString message;
    bool operator==(const DecodingError &) const = default;
};

// Any failure of an account request. Callers tell the session's own errors (which may sign the user
// out) from everything else.
using AccountFailure = std::variant<AuthError, BalanceError, TransportError, DecodingError, PurchaseError>;

QString describe(const AccountFailure &failure);
inline bool isAuthError(const AccountFailure &failure)
{
    return std::holds_alternative<AuthError>(failure);
}

// The value of an asynchronous account call, or why there is none.
template<typename T> class AccountResult
{
public:
    AccountResult(T value)
        : m_value(std::move(value))
    {}
    AccountResult(AccountFailure failure)
        : m_value(std::move(failure))
    {}
    template<typename E>
    requires std::is_constructible_v<AccountFailure, E> AccountResult(E failure)
        : m_value(AccountFailure(std::move(failure)))
    {}

    bool ok() const { return m_value.index() == 0; }
    const T &value() const { return std::get<0>(m_value); }
    const AccountFailure &failure() const { return std::get<1>(m_value); }

private:
    std::variant<T, AccountFailure> m_value;
};
