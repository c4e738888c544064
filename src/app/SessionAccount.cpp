// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/SessionAccount.h"

#include "account/AuthManager.h"
#include "account/BalanceManager.h"

#include <algorithm>
#include <climits>

SessionAccount::SessionAccount(AuthManager &auth, BalanceManager &balance)
    : m_auth(auth)
    , m_balance(balance)
{}

bool SessionAccount::isSignedIn() const
{
    return m_auth.isSignedIn();
}

qint64 SessionAccount::balanceSeconds() const
{
    return m_balance.balanceSeconds();
}

int SessionAccount::minutesRemaining() const
{
    return int(std::clamp<qint64>(m_balance.minutesRemaining(), INT_MIN, INT_MAX));
}

void SessionAccount::getValidAccessToken(QObject *context, std::function<void(std::optional<QString>)> done)
{
    // Any failure to get a token means the narration cannot go to the service as this user.
    m_auth.getValidAccessToken(context, [done = std::move(done)](const AccountResult<QString> &token) {
        done(token.ok() ? std::optional<QString>(token.value()) : std::nullopt);
    });
}

void SessionAccount::deductSeconds(double seconds)
{
    m_balance.deductSeconds(seconds);
}
