// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/TextPieces.h"

#include <QTextBoundaryFinder>

#include <algorithm>
#include <vector>

namespace TextPieces {

qsizetype codePointCount(QStringView text)
{
    qsizetype count = 0;
    for (qsizetype i = 0; i < text.size(); ++i) {
        if (!(text[i].isLowSurrogate() && i > 0 && text[i - 1].isHighSurrogate()))
            ++count;
    }
    return count;
}

namespace {

// The last boundary of `type` at or before `position` that lies after `start`, or -1.
qsizetype boundaryBefore(QTextBoundaryFinder &finder, qsizetype start, qsizetype position)
{
    finder.setPosition(position);
    const qsizetype at = finder.isAtBoundary() ? position : finder.toPreviousBoundary();
    return at > start ? at : -1;
}

bool isBlank(QStringView text)
{
    return std::all_of(text.begin(), text.end(), [](QChar c) { return c.isSpace(); });
}

} // namespace

QStringList split(const QString &text, qsizetype limit)
{
    if (codePointCount(text) <= limit)
        return {text};

    // codePoints[i]: code points before UTF-16 index i.
    std::vector<qsizetype> codePoints(std::size_t(text.size()) + 1, 0);
    for (qsizetype i = 0; i < text.size(); ++i) {
        const bool trailing = text[i].isLowSurrogate() && i > 0 && text[i - 1].isHighSurrogate();
        codePoints[std::size_t(i) + 1] = codePoints[std::size_t(i)] + (trailing ? 0 : 1);
    }

    QTextBoundaryFinder sentences(QTextBoundaryFinder::Sentence, text);
    QTextBoundaryFinder words(QTextBoundaryFinder::Word, text);
    QTextBoundaryFinder graphemes(QTextBoundaryFinder::Grapheme, text);

    QStringList pieces;
    const auto keep = [&](qsizetype from, qsizetype to) {
        const QStringView piece = QStringView(text).mid(from, to - from);
        if (!isBlank(piece))
            pieces << piece.toString();
    };
    qsizetype start = 0;
    while (codePoints.back() - codePoints[std::size_t(start)] > limit) {
        // The furthest index whose piece still fits.
        const auto fits = std::upper_bound(codePoints.begin() + start, codePoints.end(),
                                           codePoints[std::size_t(start)] + limit);
        const qsizetype furthest = qsizetype(fits - codePoints.begin()) - 1;
        qsizetype cut = boundaryBefore(sentences, start, furthest);
        if (cut < 0)
            cut = boundaryBefore(words, start, furthest);
        if (cut < 0)
            cut = boundaryBefore(graphemes, start, furthest);
        if (cut < 0) {
            graphemes.setPosition(start);
            cut = graphemes.toNextBoundary();
        }
        keep(start, cut);
        start = cut;
    }
    keep(start, text.size());
    return pieces;
}

} // namespace TextPieces
