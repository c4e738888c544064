// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "AccountState.h"
#include "Routes.h"

namespace httplib {
struct Request;
struct Response;
} // namespace httplib

// The account service's JSON endpoints, each for a signed-in user only:
//
//   GET  /api/credits/balance
//   GET  /api/credits/usage?period=week|month|all
//   POST /api/auth/generate-code   a one-time code that lets a browser into the user's web session
class AccountRoutes final : public Routes
{
public:
    explicit AccountRoutes(AccountState &state);
    void install(httplib::Server &server) override;

private:
    // Answers the request itself, with an injected failure or 401, unless it may go on.
    bool admit(AccountState::Route route, const httplib::Request &request, httplib::Response &response) const;

    AccountState &m_state;
};
