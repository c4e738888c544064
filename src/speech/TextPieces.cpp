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

// Unicode's rules end a sentence at any full stop followed by a capital; these words and single
// capitals (initials) seldom end one.
bool endsWithAbbreviation(QStringView text)
{
    static const QStringList abbreviations{
        QStringLiteral("Mr"),   QStringLiteral("Mrs"), QStringLiteral("Ms"),  QStringLiteral("Dr"),
        QStringLiteral("Prof"), QStringLiteral("St"),  QStringLiteral("Jr"),  QStringLiteral("Sr"),
        QStringLiteral("vs"),   QStringLiteral("e.g"), QStringLiteral("i.e"), QStringLiteral("cf")};
    qsizetype end = text.size();
    while (end > 0 && text[end - 1].isSpace())
        --end;
    if (end == 0 || text[end - 1] != u'.')
        return false;
    qsizetype start = end - 1;
    while (start > 0 && (text[start - 1].isLetter() || text[start - 1] == u'.'))
        --start;
    const QStringView word = text.mid(start, end - 1 - start);
    return (word.size() == 1 && word[0].isUpper()) || abbreviations.contains(word);
}

} // namespace

QList<qsizetype> sentenceBoundaries(const QString &text)
{
    QList<qsizetype> boundaries;
    QTextBoundaryFinder finder(QTextBoundaryFinder::Sentence, text);
    for (qsizetype at = finder.toNextBoundary(); at > 0 && at < text.size(); at = finder.toNextBoundary()) {
        if (!endsWithAbbreviation(QStringView(text).left(at)))
            boundaries << at;
    }
    return boundaries;
}

QStringList split(const QString &text, qsizetype limit)
{
    QStringList pieces;
    for (const Range &range : splitRanges(text, limit))
        pieces << text.mid(range.start, range.end - range.start);
    return pieces;
}

QList<Range> splitRanges(const QString &text, qsizetype limit)
{
    if (codePointCount(text) <= limit)
        return {{0, text.size()}};

    // codePoints[i]: code points before UTF-16 index i.
    std::vector<qsizetype> codePoints(std::size_t(text.size()) + 1, 0);
    for (qsizetype i = 0; i < text.size(); ++i) {
        const bool trailing = text[i].isLowSurrogate() && i > 0 && text[i - 1].isHighSurrogate();
        codePoints[std::size_t(i) + 1] = codePoints[std::size_t(i)] + (trailing ? 0 : 1);
    }

    const QList<qsizetype> sentences = sentenceBoundaries(text);
    QTextBoundaryFinder words(QTextBoundaryFinder::Word, text);
    QTextBoundaryFinder graphemes(QTextBoundaryFinder::Grapheme, text);

    QList<Range> pieces;
    const auto keep = [&](qsizetype from, qsizetype to) {
        if (!isBlank(QStringView(text).mid(from, to - from)))
            pieces.append({from, to});
    };
    qsizetype start = 0;
    while (codePoints.back() - codePoints[std::size_t(start)] > limit) {
        // The furthest index whose piece still fits.
        const auto fits = std::upper_bound(codePoints.begin() + start, codePoints.end(),
                                           codePoints[std::size_t(start)] + limit);
        const qsizetype furthest = qsizetype(fits - codePoints.begin()) - 1;
        const auto sentenceEnd = std::upper_bound(sentences.begin(), sentences.end(), furthest);
        qsizetype cut =
            sentenceEnd != sentences.begin() && *(sentenceEnd - 1) > start ? *(sentenceEnd - 1) : -1;
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
