// SPDX-License-Identifier: GPL-3.0-or-later
#include "BearerToken.h"

#include <httplib.h>

#include <algorithm>
#include <cctype>
#include <string_view>

namespace {

std::string_view trimmed(std::string_view text)
{
    const auto isSpace = [](char c) { return c == ' ' || c == '\t'; };
    while (!text.empty() && isSpace(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && isSpace(text.back()))
        text.remove_suffix(1);
    return text;
}

} // namespace

std::optional<std::string> bearerToken(const httplib::Request &request)
{
    if (!request.has_header("Authorization"))
        return std::nullopt;
    const std::string header = request.get_header_value("Authorization");
    const std::string_view value = trimmed(header);
    constexpr std::string_view scheme = "bearer";
    const bool schemeMatches =
        value.size() >= scheme.size() &&
        std::equal(scheme.begin(), scheme.end(), value.begin(),
                   [](char a, char b) { return a == std::tolower(static_cast<unsigned char>(b)); }) &&
        (value.size() == scheme.size() || value[scheme.size()] == ' ');
    if (!schemeMatches)
        return std::nullopt;
    return std::string(trimmed(value.substr(scheme.size())));
}
