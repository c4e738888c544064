// SPDX-License-Identifier: GPL-3.0-or-later
#include "AuthRoutes.h"

#include "BearerToken.h"
#include "DevControlRoutes.h"
#include "HtmlPage.h"
#include "JsonResponse.h"

#include <httplib.h>

#include <QUrl>

namespace {

std::string percentEncoded(const std::string &text)
{
    return QUrl::toPercentEncoding(QString::fromStdString(text)).toStdString();
}

QJsonObject userJson(const AccountState::User &user)
{
    return {{"id", QString::fromStdString(user.id)},
            {"email", QString::fromStdString(user.email)},
            {"aud", "authenticated"},
            {"role", "authenticated"}};
}

} // namespace

AuthRoutes::AuthRoutes(AccountState &state, bool autoConsent)
    : m_state(state)
    , m_autoConsent(autoConsent)
{}

void AuthRoutes::install(httplib::Server &server)
{
    using namespace httplib;
    server.Get("/auth/v1/authorize",
               [this](const Request &request, Response &response) { authorize(request, response); });
    server.Get("/auth/v1/consent", [this](const Request &request, Response &response) {
        const std::string redirectTo = request.get_param_value("redirect_to");
        if (redirectTo.empty())
            setJson(response, 400, errorCode("validation_failed", "redirect_to is required."));
        else
            redirectSignedIn(redirectTo, response);
    });
    server.Post("/auth/v1/token",
                [this](const Request &request, Response &response) { refresh(request, response); });
    server.Get("/auth/v1/user",
               [this](const Request &request, Response &response) { user(request, response); });
}

void AuthRoutes::authorize(const httplib::Request &request, httplib::Response &response)
{
    const std::string provider = request.get_param_value("provider");
    const std::string redirectTo = request.get_param_value("redirect_to");
    if (provider != "google" && provider != "apple") {
        setJson(
            response, 400,
            errorCode("validation_failed", "Unsupported provider: '" + provider + "' (google or apple)."));
        return;
    }
    if (redirectTo.empty()) {
        setJson(response, 400, errorCode("validation_failed", "redirect_to is required."));
        return;
    }
    if (m_autoConsent) {
        redirectSignedIn(redirectTo, response);
        return;
    }
    const std::string email = htmlEscaped(m_state.user().email);
    setHtmlPage(response, 200, "Sign in with " + std::string(provider == "google" ? "Google" : "Apple"),
                "<p>quillvox-devserver signs in its one user without asking for a password.</p>\n"
                "<p><a id=\"continue\" href=\"/auth/v1/consent?redirect_to=" +
                    htmlEscaped(percentEncoded(redirectTo)) + "\">Continue as " + email + "</a></p>");
}

void AuthRoutes::redirectSignedIn(const std::string &redirectTo, httplib::Response &response)
{
    const AccountState::Session session = m_state.signIn();
    response.set_redirect(redirectTo + "#access_token=" + percentEncoded(session.accessToken) +
                              "&expires_in=" + std::to_string(session.expiresIn) + "&refresh_token=" +
                              percentEncoded(session.refreshToken) + "&token_type=bearer&type=signup",
                          302);
}

void AuthRoutes::refresh(const httplib::Request &request, httplib::Response &response)
{
    if (DevControlRoutes::answeredWithInjectedFailure(m_state, AccountState::Route::Refresh, response))
        return;
    if (!hasAnonKey(request) || bearerToken(request) != m_state.anonKey()) {
        setJson(response, 401, errorCode("invalid_api_key", "Invalid API key."));
        return;
    }
    if (request.get_param_value("grant_type") != "refresh_token") {
        setJson(response, 400,
                errorCode("unsupported_grant_type", "Only grant_type=refresh_token is served."));
        return;
    }
    const auto body = jsonObjectBody(request.body);
    const QJsonValue refreshToken = body ? body->value("refresh_token") : QJsonValue();
    if (!refreshToken.isString() || refreshToken.toString().isEmpty()) {
        setJson(response, 400, errorCode("invalid_request", "Expected {\"refresh_token\": \"...\"}."));
        return;
    }
    const auto session = m_state.refresh(refreshToken.toString().toStdString());
    if (!session) {
        setJson(response, 400, errorCode("invalid_grant", "Invalid Refresh Token: Already Used"));
        return;
    }
    setJson(response, 200,
            {{"access_token", QString::fromStdString(session->accessToken)},
             {"token_type", "bearer"},
             {"expires_in", qint64(session->expiresIn)},
             {"expires_at", qint64(session->expiresAt)},
             {"refresh_token", QString::fromStdString(session->refreshToken)},
             {"user", userJson(m_state.user())}});
}

void AuthRoutes::user(const httplib::Request &request, httplib::Response &response)
{
    if (DevControlRoutes::answeredWithInjectedFailure(m_state, AccountState::Route::User, response))
        return;
    if (!hasAnonKey(request)) {
        setJson(response, 401, errorCode("invalid_api_key", "Invalid API key."));
        return;
    }
    const auto user = m_state.verify(bearerToken(request).value_or(std::string()));
    if (!user) {
        setJson(response, 401, errorCode("invalid_token", "The access token is invalid or has expired."));
        return;
    }
    setJson(response, 200, userJson(*user));
}

bool AuthRoutes::hasAnonKey(const httplib::Request &request) const
{
    return request.has_header("apikey") && request.get_header_value("apikey") == m_state.anonKey();
}
