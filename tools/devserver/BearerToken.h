// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <optional>
#include <string>

namespace httplib {
struct Request;
}

// The token of an "Authorization: Bearer <token>" header (possibly empty), or nothing when the header
// is missing or uses another scheme. Scheme names are case-insensitive.
std::optional<std::string> bearerToken(const httplib::Request &request);
