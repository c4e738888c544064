// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/NarrationText.h"

#include "core/TextMetrics.h"

#include <QRegularExpression>

#include <algorithm>

namespace {

constexpr double kAverageCharsPerWord = 6.0;
constexpr double kAverageWordsPerMinute = 165.0;

const QRegularExpression &whitespaceRuns()
{
    static const QRegularExpression re(QStringLiteral("\\s+"),
                                       QRegularExpression::UseUnicodePropertiesOption);
    return re;
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
    QString s = text.trimmed();
    s.replace(whitespaceRuns(), QStringLiteral(" "));
    return s.toLower();
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
    kept.replace(whitespaceRuns(), QStringLiteral(" "));
    return kept;
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
