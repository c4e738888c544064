// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QJsonObject>

#include <optional>
#include <string_view>

namespace httplib {
struct Response;
}

// JSON bodies for every route group. The charset parameter is not decoration: cpp-httplib gzips a body
// typed exactly "application/json" whenever the client accepts gzip, and the request log's byte counts
// should be the bytes a client reads.
inline constexpr const char *jsonContentType = "application/json; charset=utf-8";

void setJson(httplib::Response &response, int status, const QJsonObject &body);

// Errors in the shape OpenAI-compatible clients expect:
// {"error": {"message": ..., "type": ..., "param": ... | null, "code": ... | null}}.
void setJsonError(httplib::Response &response, int status, std::string_view message, std::string_view type,
                  std::string_view param = {}, std::string_view code = {});

// Errors in the shape the auth backend and the account service use: {"error": code} with an
// "error_description" when there is something to explain.
QJsonObject errorCode(std::string_view code, std::string_view description = {});

// A request body that must be a JSON object; nothing when it is not.
std::optional<QJsonObject> jsonObjectBody(std::string_view body);
