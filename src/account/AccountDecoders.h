// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "account/AccountError.h"
#include "account/AuthManager.h"
#include "account/BalanceManager.h"

#include <QJsonObject>
#include <QString>

// The account endpoints' answers, from the JSON object of a 200 answer. Each names the first required
// member that is missing or of the wrong type; other members are ignored.

// GET /auth/v1/user
AccountResult<SupabaseUser> decodeUser(const QJsonObject &object);

// POST /auth/v1/token?grant_type=refresh_token
struct SessionTokens
{
    QString accessToken;
    QString refreshToken;
};
AccountResult<SessionTokens> decodeSessionTokens(const QJsonObject &object);

// GET /api/credits/balance
struct BalanceAnswer
{
    qint64 balanceSeconds;
    qint64 minutesRemaining;
};
AccountResult<BalanceAnswer> decodeBalance(const QJsonObject &object);

// GET /api/credits/usage
AccountResult<UsageStatsResponse> decodeUsage(const QJsonObject &object);

// POST /api/auth/generate-code
AccountResult<GenerateCodeResponse> decodeCode(const QJsonObject &object);
