// SPDX-License-Identifier: GPL-3.0-or-later
#include "HtmlPage.h"

#include <httplib.h>

std::string htmlEscaped(std::string_view text)
{
    std::string escaped;
    escaped.reserve(text.size());
    for (const char c : text) {
        switch (c) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        case '\'':
            escaped += "&#39;";
            break;
        default:
            escaped += c;
        }
    }
    return escaped;
}

void setHtmlPage(httplib::Response &response, int status, std::string_view title, std::string_view bodyHtml)
{
    const std::string escapedTitle = htmlEscaped(title);
    std::string page = "<!DOCTYPE html>\n<html lang=\"en\">\n<head><meta charset=\"utf-8\"><title>" +
                       escapedTitle + "</title></head>\n<body>\n<h1>" + escapedTitle + "</h1>\n";
    page += bodyHtml;
    page += "\n</body>\n</html>\n";
    response.status = status;
    response.set_content(page, "text/html; charset=utf-8");
}
