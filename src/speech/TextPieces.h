// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <QStringList>

// Cuts a text that is too long for one speech request into consecutive pieces that each fit. OpenAI's
// speech endpoint refuses an input of more than 4,096 characters, counted as Unicode code points.
namespace TextPieces {

inline constexpr qsizetype kOpenAIInputLimit = 4096;

// Unicode code points (a surrogate pair is one).
qsizetype codePointCount(QStringView text);

// The text itself when it fits. Otherwise pieces of at most `limit` code points, cut at sentence ends;
// a sentence longer than that is cut at word boundaries, and a word longer than that at grapheme
// boundaries (never inside one, so a single grapheme longer than the limit stays whole). Together the
// pieces are the text, less any piece made only of whitespace.
QStringList split(const QString &text, qsizetype limit = kOpenAIInputLimit);

} // namespace TextPieces
