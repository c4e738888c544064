// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/NarrationText.h"

#include "core/TextMetrics.h"

#include <QList>

#include <algorithm>

namespace {

constexpr double kAverageCharsPerWord = 6.0;
constexpr double kAverageWordsPerMinute = 165.0;

// Each run of white space as one space. By hand: a regular expression here would be compiled to machine
// code at the first narration, which costs more memory than the whole text does.
QString collapsedSpaces(QStringView text)
{
    QString collapsed;
    collapsed.reserve(text.size());
    bool inRun = false;
    for (const QChar c : text) {
        if (c.isSpace()) {
            if (!inRun)
                collapsed.append(u' ');
            inRun = true;
        } else {
            collapsed.append(c);
            inRun = false;
        }
    }
    return collapsed;
}

bool isKept(char32_t c)
{
    switch (QChar::category(c)) {
    case QChar::Letter_Uppercase:
    case QChar::Letter_Lowercase:
    case QChar::Letter_Titlecase:
    case QChar::Letter_Modifier:
    case QChar::Letter_Other:
    case QChar::Mark_NonSpacing:
    case QChar::Mark_SpacingCombining:
    case QChar::Mark_Enclosing:
    case QChar::Number_DecimalDigit:
    case QChar::Number_Letter:
    case QChar::Number_Other:
        return true;
    default:
        return QChar::isSpace(c);
    }
}

} // namespace

namespace NarrationText {

QString normalizedText(const QString &text)
{
    return collapsedSpaces(text.trimmed()).toLower();
}

QString comparableText(const QString &text)
{
    const QString normalized = normalizedText(text);
    QString kept;
    kept.reserve(normalized.size());
    for (const char32_t c : normalized.toUcs4()) {
        if (isKept(c))
            kept.append(QStringView(QChar::fromUcs4(c)));
    }
    return collapsedSpaces(kept);
}

qint64 characterCount(const QString &text)
{
    return graphemeCount(text);
}

double estimatedDuration(const QString &text, float playbackSpeed)
{
    const double wordsPerSecond = kAverageWordsPerMinute / 60.0;
    return double(characterCount(text)) / kAverageCharsPerWord / wordsPerSecond /
           std::max(double(playbackSpeed), 0.1);
}

} // namespace NarrationText
