// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "AccountState.h"
#include "Routes.h"

#include <string>

namespace httplib {
struct Request;
struct Response;
} // namespace httplib

// The auth backend: an OAuth sign-in that ends in a redirect carrying the session in its fragment,
// refresh-token rotation, and the user behind an access token.
//
//   GET  /auth/v1/authorize?provider=google|apple&redirect_to=URL  sign-in page, or the redirect at once
//   GET  /auth/v1/consent?redirect_to=URL                          what the page's button does
//   POST /auth/v1/token?grant_type=refresh_token                   {"refresh_token": ...}
//   GET  /auth/v1/user
class AuthRoutes final : public Routes
{
public:
    AuthRoutes(AccountState &state, bool autoConsent);
    void install(httplib::Server &server) override;

private:
    void authorize(const httplib::Request &request, httplib::Response &response);
    void redirectSignedIn(const std::string &redirectTo, httplib::Response &response);
    void refresh(const httplib::Request &request, httplib::Response &response);
    void user(const httplib::Request &request, httplib::Response &response);
    bool hasAnonKey(const httplib::Request &request) const;

    AccountState &m_state;
    bool m_autoConsent;
};
