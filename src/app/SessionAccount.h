// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "speech/NarrationServices.h"

class AuthManager;
class BalanceManager;

// Narration's view of an account session and its balance.
class SessionAccount final : public AccountGate
{
public:
    SessionAccount(AuthManager &auth, BalanceManager &balance);

    bool isSignedIn() const override;
    qint64 balanceSeconds() const override;
    int minutesRemaining() const override;
    void getValidAccessToken(QObject *context, std::function<void(std::optional<QString>)> done) override;
    void deductSeconds(double seconds) override;

private:
    AuthManager &m_auth;
    BalanceManager &m_balance;
};
