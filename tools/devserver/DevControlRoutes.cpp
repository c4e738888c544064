// SPDX-License-Identifier: GPL-3.0-or-later
#include "DevControlRoutes.h"

#include "JsonResponse.h"

#include <httplib.h>

#include <cmath>
#include <string>

namespace {

std::optional<std::int64_t> wholeNumber(const QJsonValue &value, double min, double max)
{
    const double number = value.toDouble(std::nan(""));
    if (!value.isDouble() || number != std::trunc(number) || number < min || number > max)
        return std::nullopt;
    return static_cast<std::int64_t>(number);
}

void setBadRequest(httplib::Response &response, std::string_view description)
{
    setJson(response, 400, errorCode("invalid_request", description));
}

} // namespace

DevControlRoutes::DevControlRoutes(AccountState &state)
    : m_state(state)
{}

bool DevControlRoutes::answeredWithInjectedFailure(AccountState &state, AccountState::Route route,
                                                   httplib::Response &response)
{
    const std::optional<int> status = state.takeFailure(route);
    if (!status)
        return false;
    setJson(response, *status,
            errorCode("injected_failure",
                      "Failure injected by quillvox-devserver (status " + std::to_string(*status) + ")."));
    return true;
}

void DevControlRoutes::install(httplib::Server &server)
{
    server.Post("/dev/balance", [this](const httplib::Request &request, httplib::Response &response) {
        const auto body = jsonObjectBody(request.body);
        const auto seconds = body ? wholeNumber(body->value("seconds"), -1e12, 1e12) : std::nullopt;
        if (!seconds) {
            setBadRequest(response, "Expected {\"seconds\": N}.");
            return;
        }
        m_state.setBalanceSeconds(*seconds);
        setJson(response, 200, {{"balance_seconds", qint64(*seconds)}});
    });
    server.Post("/dev/fail", [this](const httplib::Request &request, httplib::Response &response) {
        const QJsonObject body = jsonObjectBody(request.body).value_or(QJsonObject());
        const auto route = AccountState::routeNamed(body.value("route").toString().toStdString());
        const std::int64_t status = wholeNumber(body.value("status"), 400, 599).value_or(0);
        const std::int64_t count = wholeNumber(body.value("count"), 0, 1e6).value_or(-1);
        const std::int64_t after =
            body.contains("after") ? wholeNumber(body.value("after"), 0, 1e6).value_or(-1) : 0;
        if (!route || status == 0 || count < 0 || after < 0) {
            setBadRequest(response,
                          "Expected {\"route\": \"refresh|user|balance|usage|generate-code|tts|speech\", "
                          "\"status\": 400-599, \"count\": N, \"after\": N (optional)}.");
            return;
        }
        m_state.injectFailure(*route, static_cast<int>(status), static_cast<int>(count),
                              static_cast<int>(after));
        setJson(response, 200,
                {{"route", body.value("route")}, {"status", qint64(status)}, {"count", qint64(count)}});
    });
    server.Get("/dev/state", [this](const httplib::Request &, httplib::Response &response) {
        setJson(response, 200,
                {{"balance_seconds", qint64(m_state.balanceSeconds())},
                 {"refreshes", m_state.refreshes()},
                 {"refresh_failures_pending", m_state.pendingFailures(AccountState::Route::Refresh)}});
    });
}
