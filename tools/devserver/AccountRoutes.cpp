// SPDX-License-Identifier: GPL-3.0-or-later
#include "AccountRoutes.h"

#include "BearerToken.h"
#include "DevControlRoutes.h"
#include "JsonResponse.h"

#include <httplib.h>

AccountRoutes::AccountRoutes(AccountState &state)
    : m_state(state)
{}

void AccountRoutes::install(httplib::Server &server)
{
    using httplib::Request, httplib::Response;
    using Route = AccountState::Route;
    server.Get("/api/credits/balance", [this](const Request &request, Response &response) {
        if (!admit(Route::Balance, request, response))
            return;
        const std::int64_t balance = m_state.balanceSeconds();
        setJson(response, 200,
                {{"balance_seconds", qint64(balance)},
                 {"minutes_remaining", qint64(std::max<std::int64_t>(balance, 0) / 60)}});
    });
    server.Get("/api/credits/usage", [this](const Request &request, Response &response) {
        if (!admit(Route::Usage, request, response))
            return;
        const auto period = AccountState::periodNamed(request.get_param_value("period"));
        if (!period) {
            setJson(response, 400, errorCode("invalid_period", "period must be week, month or all."));
            return;
        }
        const AccountState::Usage usage = m_state.usage(*period);
        setJson(response, 200,
                {{"narrations", qint64(usage.narrations)},
                 {"minutes", static_cast<double>(usage.seconds) / 60.0},
                 {"seconds", qint64(usage.seconds)}});
    });
    server.Post("/api/auth/generate-code", [this](const Request &request, Response &response) {
        if (!admit(Route::GenerateCode, request, response))
            return;
        setJson(response, 200,
                {{"code", QString::fromStdString(m_state.generateCode())},
                 {"expires_in", qint64(AccountState::codeLifetime.count())},
                 {"message", "Code generated"}});
    });
}

bool AccountRoutes::admit(AccountState::Route route, const httplib::Request &request,
                          httplib::Response &response) const
{
    if (DevControlRoutes::answeredWithInjectedFailure(m_state, route, response))
        return false;
    if (!m_state.verify(bearerToken(request).value_or(std::string()))) {
        setJson(response, 401, errorCode("unauthorized"));
        return false;
    }
    return true;
}
