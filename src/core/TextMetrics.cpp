// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/TextMetrics.h"

#include <QTextBoundaryFinder>

qint64 graphemeCount(const QString &text)
{
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qint64 count = 0;
    while (finder.toNextBoundary() != -1)
        ++count;
    return count;
}
