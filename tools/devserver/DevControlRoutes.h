// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "AccountState.h"
#include "Routes.h"

namespace httplib {
struct Response;
}

// POST /dev/balance, POST /dev/fail and GET /dev/state: a test sets the balance, makes account routes
// fail, and sees what the server remembers. No authentication: the server listens on loopback only.
class DevControlRoutes final : public Routes
{
public:
    explicit DevControlRoutes(AccountState &state);
    void install(httplib::Server &server) override;

    // Answers with the failure /dev/fail (or --fail-refresh) holds for this route, if one is left, and
    // says whether it did.
    static bool answeredWithInjectedFailure(AccountState &state, AccountState::Route route,
                                            httplib::Response &response);

private:
    AccountState &m_state;
};
