// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string>
#include <string_view>

namespace httplib {
struct Response;
}

// The few pages a browser sees from this server: plain HTML, no styling worth the name.
std::string htmlEscaped(std::string_view text);
// bodyHtml is inserted as it is; escape whatever came from a request.
void setHtmlPage(httplib::Response &response, int status, std::string_view title, std::string_view bodyHtml);
