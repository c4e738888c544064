// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QJsonObject>

#include <optional>
#include <string>
#include <string_view>

// HS256 JSON Web Tokens: header.payload.signature, each part base64url without padding.
namespace Jwt {

std::string sign(const QJsonObject &payload, const QByteArray &secret);

// The payload of a token signed with secret by sign(), or nothing. Says nothing about expiry: the
// claims are the caller's to judge.
std::optional<QJsonObject> verify(std::string_view token, const QByteArray &secret);

} // namespace Jwt
