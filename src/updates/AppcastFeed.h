// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QDateTime>
#include <QList>
#include <QString>
#include <QUrl>

#include <variant>

// One release in an update feed.
struct AppcastItem
{
    QString version;      // what releases are compared by
    QString shortVersion; // what people are shown; the version when the feed gives none
    QUrl link;            // where to download it
    QUrl releaseNotes;
    QDateTime pubDate;

    QString displayVersion() const { return shortVersion.isEmpty() ? version : shortVersion; }
};

namespace Appcast {

// Feeds larger than this are refused unread.
constexpr qint64 kMaxBodyBytes = 1024 * 1024;

// The releases of an RSS appcast, or why it cannot be read. Items without a version are skipped; a
// feed with a DTD is refused, so that no entity is ever expanded.
std::variant<QList<AppcastItem>, QString> parse(const QByteArray &xml);

// Compares release versions part by part, numerically: "1.10" is after "1.9" and "1.2" equals
// "1.2.0". A part may carry a suffix after its number ("0b1", "0rc2"); it marks a pre-release, which
// comes before the same number without one ("2.0b1" < "2.0"), and suffixes order among themselves as
// text ("2.0a1" < "2.0b1" < "2.0rc1"). Negative when a is older, 0 when equal, positive when newer.
int compareVersions(const QString &a, const QString &b);

// The release with the highest version; none for an empty list.
std::optional<AppcastItem> newest(const QList<AppcastItem> &items);

} // namespace Appcast
