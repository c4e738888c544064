// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "AccountState.h"
#include "Routes.h"

// The account service's pages, which a browser opens with no credentials of its own:
//
//   GET /api/auth/token-exchange?code=C&next=PATH   spends a one-time code, then goes on to PATH
//   GET /api/credits/purchase-redirect?package=NAME
//   GET /purchase?package=NAME
//   GET /auth/app-callback                          hands the sign-in fragment to quillvox://auth/callback
class AccountPageRoutes final : public Routes
{
public:
    explicit AccountPageRoutes(AccountState &state);
    void install(httplib::Server &server) override;

private:
    AccountState &m_state;
};
