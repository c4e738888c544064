// SPDX-License-Identifier: GPL-3.0-or-later
#include "AccountPageRoutes.h"

#include "HtmlPage.h"

#include <httplib.h>

#include <QUrl>

namespace {

// Only a path on this server: "//host" would leave it.
bool isLocalPath(const std::string &next)
{
    return next.starts_with('/') && !next.starts_with("//") && !next.starts_with("/\\");
}

} // namespace

AccountPageRoutes::AccountPageRoutes(AccountState &state)
    : m_state(state)
{}

void AccountPageRoutes::install(httplib::Server &server)
{
    using httplib::Request, httplib::Response;
    server.Get("/api/auth/token-exchange", [this](const Request &request, Response &response) {
        const std::string next = request.get_param_value("next");
        if (!isLocalPath(next)) {
            setHtmlPage(response, 400, "Invalid redirect", "<p>next must be a path on this site.</p>");
            return;
        }
        if (!m_state.redeemCode(request.get_param_value("code"))) {
            setHtmlPage(response, 400, "Invalid or expired code",
                        "<p>Open this page from Quillvox again to get a new code.</p>");
            return;
        }
        response.set_redirect(next, 302);
    });
    server.Get("/api/credits/purchase-redirect", [](const Request &request, Response &response) {
        const std::string package = request.get_param_value("package");
        if (package.empty()) {
            setHtmlPage(response, 400, "No package", "<p>Say which package to buy.</p>");
            return;
        }
        response.set_redirect("/purchase?package=" +
                                  QUrl::toPercentEncoding(QString::fromStdString(package)).toStdString(),
                              302);
    });
    server.Get("/purchase", [](const Request &request, Response &response) {
        setHtmlPage(response, 200, "Buy narration time",
                    "<p>Package: <strong>" + htmlEscaped(request.get_param_value("package")) +
                        "</strong></p>\n<p>This is quillvox-devserver: nothing is sold here.</p>");
    });
    server.Get("/auth/app-callback", [](const Request &, Response &response) {
        setHtmlPage(response, 200, "Back to Quillvox",
                    "<p><a id=\"open\" href=\"quillvox://auth/callback\">Open Quillvox</a></p>\n"
                    "<script>\n"
                    "const target = 'quillvox://auth/callback' + location.hash;\n"
                    "document.getElementById('open').href = target;\n"
                    "location.replace(target);\n"
                    "</script>");
    });
}
