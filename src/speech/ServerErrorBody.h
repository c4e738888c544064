// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

// What a speech server the user chose says when it refuses a request. Self-hosted servers put their
// reason in different places of a JSON body; it is far more use to the user than the status's phrase.
namespace ServerErrorBody {

// Bodies beyond this are not read further; a reason never needs that much.
inline constexpr qsizetype kMaxBodyBytes = 64 * 1024;
inline constexpr qsizetype kMaxMessageChars = 200;

// The server's own message: `error.message` (or `error` as text), `detail` as text, `detail.message`,
// each `detail[].msg` joined, or `message`; whitespace folded, cut at 200 characters. Nothing for a body
// that is not such JSON (an HTML page, an empty or truncated body).
std::optional<QString> message(const QByteArray &body);

// Most characters per request: the default, and the least that halving goes down to.
inline constexpr int kDefaultMaxInputChars = 4096;
inline constexpr int kMinInputChars = 256;

// A refusal for the input's size: 413, or a 422 whose message speaks of the input's length.
bool refusesInputLength(int status, const QString &message);
// The limit after such a refusal: half, but not below kMinInputChars; the same when already there.
int halvedLimit(int current);

} // namespace ServerErrorBody
