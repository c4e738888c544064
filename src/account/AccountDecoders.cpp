// SPDX-License-Identifier: GPL-3.0-or-later
#include "account/AccountDecoders.h"

#include "account/AccountHttp.h"

AccountResult<SupabaseUser> decodeUser(const QJsonObject &object)
{
    const auto id = stringMember(object, QLatin1StringView("id"));
    const auto email = stringMember(object, QLatin1StringView("email"));
    if (!id)
        return missingMember(QLatin1StringView("id"));
    if (!email)
        return missingMember(QLatin1StringView("email"));
    return SupabaseUser{*id, *email};
}

AccountResult<SessionTokens> decodeSessionTokens(const QJsonObject &object)
{
    const auto access = stringMember(object, QLatin1StringView("access_token"));
    const auto refresh = stringMember(object, QLatin1StringView("refresh_token"));
    if (!access)
        return missingMember(QLatin1StringView("access_token"));
    if (!refresh)
        return missingMember(QLatin1StringView("refresh_token"));
    return SessionTokens{*access, *refresh};
}

AccountResult<BalanceAnswer> decodeBalance(const QJsonObject &object)
{
    const auto seconds = integerMember(object, QLatin1StringView("balance_seconds"));
    const auto minutes = integerMember(object, QLatin1StringView("minutes_remaining"));
    if (!seconds)
        return missingMember(QLatin1StringView("balance_seconds"));
    if (!minutes)
        return missingMember(QLatin1StringView("minutes_remaining"));
    return BalanceAnswer{*seconds, *minutes};
}

AccountResult<UsageStatsResponse> decodeUsage(const QJsonObject &object)
{
    const auto narrations = integerMember(object, QLatin1StringView("narrations"));
    const auto minutes = numberMember(object, QLatin1StringView("minutes"));
    const auto seconds = integerMember(object, QLatin1StringView("seconds"));
    if (!narrations)
        return missingMember(QLatin1StringView("narrations"));
    if (!minutes)
        return missingMember(QLatin1StringView("minutes"));
    if (!seconds)
        return missingMember(QLatin1StringView("seconds"));
    return UsageStatsResponse{*narrations, *minutes, *seconds};
}

AccountResult<GenerateCodeResponse> decodeCode(const QJsonObject &object)
{
    const auto code = stringMember(object, QLatin1StringView("code"));
    const auto expiresIn = integerMember(object, QLatin1StringView("expires_in"));
    if (!code)
        return missingMember(QLatin1StringView("code"));
    if (!expiresIn)
        return missingMember(QLatin1StringView("expires_in"));
    return GenerateCodeResponse{*code, *expiresIn};
}
