// SPDX-License-Identifier: GPL-3.0-or-later
// Every answer body of the account endpoints through every decoder: a decoded value carries exactly
// the members the object holds, and a refusal names a member.
#include "FuzzCheck.h"
#include "account/AccountDecoders.h"
#include "account/AccountHttp.h"

#include <QJsonValue>

#include <cmath>
#include <cstdint>

namespace {

template<typename T> void checkFailure(const AccountResult<T> &result)
{
    if (!result.ok())
        FUZZ_CHECK(std::holds_alternative<DecodingError>(result.failure()));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray body(reinterpret_cast<const char *>(data), qsizetype(size));
    const AccountResult<QJsonObject> object = decodeObject(body);
    if (!object.ok()) {
        FUZZ_CHECK(std::holds_alternative<DecodingError>(object.failure()));
        return 0;
    }
    const QJsonObject &o = object.value();

    const auto user = decodeUser(o);
    checkFailure(user);
    if (user.ok())
        FUZZ_CHECK(user.value().id == o.value(QLatin1StringView("id")).toString() &&
                   user.value().email == o.value(QLatin1StringView("email")).toString());

    const auto tokens = decodeSessionTokens(o);
    checkFailure(tokens);
    if (tokens.ok())
        FUZZ_CHECK(tokens.value().accessToken == o.value(QLatin1StringView("access_token")).toString());

    const auto balance = decodeBalance(o);
    checkFailure(balance);
    if (balance.ok())
        FUZZ_CHECK(double(balance.value().balanceSeconds) ==
                   o.value(QLatin1StringView("balance_seconds")).toDouble());

    const auto usage = decodeUsage(o);
    checkFailure(usage);
    if (usage.ok())
        FUZZ_CHECK(std::isfinite(usage.value().minutes));

    const auto code = decodeCode(o);
    checkFailure(code);
    if (code.ok())
        FUZZ_CHECK(double(code.value().expiresIn) == o.value(QLatin1StringView("expires_in")).toDouble());
    return 0;
}
