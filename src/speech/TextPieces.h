// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QList>
#include <QString>
#include <QStringList>

// Cuts a text that is too long for one speech request into consecutive pieces that each fit. OpenAI's
// speech endpoint refuses an input of more than 4,096 characters, counted as Unicode code points.
namespace TextPieces {

inline constexpr qsizetype kOpenAIInputLimit = 4096;

// A span of UTF-16 indices, [start, end).
struct Range
{
    qsizetype start = 0;
    qsizetype end = 0;
    friend bool operator==(const Range &, const Range &) = default;
};

// Unicode code points (a surrogate pair is one).
qsizetype codePointCount(QStringView text);

// Where sentences begin, after 0: Unicode sentence boundaries (so never inside a grapheme), less those
// after a title, an initial or a Latin abbreviation ("Dr. Smith", "J. Smith", "e.g. Paris").
QList<qsizetype> sentenceBoundaries(const QString &text);

// The text itself when it fits. Otherwise pieces of at most `limit` code points, cut at sentence ends;
// a sentence longer than that is cut at word boundaries, and a word longer than that at grapheme
// boundaries (never inside one, so a single grapheme longer than the limit stays whole). Together the
// pieces are the text, less any piece made only of whitespace.
QStringList split(const QString &text, qsizetype limit = kOpenAIInputLimit);
// The same pieces as places in the text.
QList<Range> splitRanges(const QString &text, qsizetype limit = kOpenAIInputLimit);

} // namespace TextPieces
