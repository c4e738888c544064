// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

// Text forms used to recognise a repeated trigger, and the duration estimate shown before audio arrives.
namespace NarrationText {

// Trimmed, runs of whitespace collapsed to one space, lower-cased.
QString normalizedText(const QString &text);
// normalizedText with everything but letters, digits, marks and spaces dropped (any script).
QString comparableText(const QString &text);
// User-perceived characters (grapheme clusters).
qint64 characterCount(const QString &text);
// Seconds: characters ÷ 6 per word ÷ 2.75 words per second ÷ max(speed, 0.1).
double estimatedDuration(const QString &text, float playbackSpeed);

} // namespace NarrationText
