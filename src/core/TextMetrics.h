// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

// User-perceived characters (grapheme clusters): an emoji sequence or a letter with its accents is one.
qint64 graphemeCount(const QString &text);
