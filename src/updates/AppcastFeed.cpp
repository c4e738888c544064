// SPDX-License-Identifier: GPL-3.0-or-later
#include "updates/AppcastFeed.h"

#include <QXmlStreamReader>

#include <optional>

namespace {

const QString kSparkle = QStringLiteral("http://www.andymatuschak.org/xml-namespaces/sparkle");

struct VersionPart
{
    qulonglong number = 0;
    QString suffix;
};

VersionPart splitPart(QStringView part)
{
    qsizetype digits = 0;
    while (digits < part.size() && part[digits].isDigit())
        ++digits;
    // Absurdly long numbers saturate rather than wrap.
    bool ok = false;
    qulonglong number = part.left(std::min<qsizetype>(digits, 19)).toULongLong(&ok);
    return {ok ? number : 0, part.mid(digits).toString()};
}

QUrl httpUrl(const QString &text)
{
    const QUrl url(text.trimmed(), QUrl::StrictMode);
    return url.isValid() && (url.scheme() == u"https" || url.scheme() == u"http") ? url : QUrl();
}

} // namespace

int Appcast::compareVersions(const QString &a, const QString &b)
{
    const QList<QStringView> left = QStringView(a).trimmed().split(u'.');
    const QList<QStringView> right = QStringView(b).trimmed().split(u'.');
    for (qsizetype i = 0; i < std::max(left.size(), right.size()); ++i) {
        const VersionPart l = i < left.size() ? splitPart(left[i]) : VersionPart{};
        const VersionPart r = i < right.size() ? splitPart(right[i]) : VersionPart{};
        if (l.number != r.number)
            return l.number < r.number ? -1 : 1;
        if (l.suffix != r.suffix) {
            if (l.suffix.isEmpty())
                return 1;
            if (r.suffix.isEmpty())
                return -1;
            return l.suffix < r.suffix ? -1 : 1;
        }
    }
    return 0;
}

std::optional<AppcastItem> Appcast::newest(const QList<AppcastItem> &items)
{
    std::optional<AppcastItem> best;
    for (const AppcastItem &item : items)
        if (!best || compareVersions(item.version, best->version) > 0)
            best = item;
    return best;
}

std::variant<QList<AppcastItem>, QString> Appcast::parse(const QByteArray &xml)
{
    if (xml.size() > kMaxBodyBytes)
        return QStringLiteral("the feed is larger than 1 MB");
    QXmlStreamReader reader(xml);
    QList<AppcastItem> items;
    std::optional<AppcastItem> item;
    QString enclosureVersion;
    bool sawChannel = false;
    while (!reader.atEnd()) {
        reader.readNext();
        if (reader.tokenType() == QXmlStreamReader::DTD)
            return QStringLiteral("the feed declares a document type, which is not accepted");
        if (reader.isStartElement()) {
            const QStringView name = reader.name();
            const bool sparkle = reader.namespaceUri() == kSparkle;
            if (name == u"channel") {
                sawChannel = true;
            } else if (name == u"item" && !item) {
                item.emplace();
                enclosureVersion.clear();
            } else if (item && name == u"enclosure") {
                const QXmlStreamAttributes attributes = reader.attributes();
                enclosureVersion = attributes.value(kSparkle, QStringLiteral("version")).toString().trimmed();
                if (item->shortVersion.isEmpty())
                    item->shortVersion =
                        attributes.value(kSparkle, QStringLiteral("shortVersionString")).toString().trimmed();
                if (item->link.isEmpty())
                    item->link = httpUrl(attributes.value(QStringLiteral("url")).toString());
            } else if (item && sparkle && name == u"version") {
                item->version = reader.readElementText(QXmlStreamReader::SkipChildElements).trimmed();
            } else if (item && sparkle && name == u"shortVersionString") {
                item->shortVersion = reader.readElementText(QXmlStreamReader::SkipChildElements).trimmed();
            } else if (item && sparkle && name == u"releaseNotesLink") {
                item->releaseNotes = httpUrl(reader.readElementText(QXmlStreamReader::SkipChildElements));
            } else if (item && !sparkle && name == u"link") {
                // The item's own page wins over an enclosure's file.
                const QUrl link = httpUrl(reader.readElementText(QXmlStreamReader::SkipChildElements));
                if (link.isValid())
                    item->link = link;
            } else if (item && name == u"pubDate") {
                item->pubDate = QDateTime::fromString(
                    reader.readElementText(QXmlStreamReader::SkipChildElements).trimmed(), Qt::RFC2822Date);
            }
        } else if (reader.isEndElement() && reader.name() == u"item" && item) {
            if (item->version.isEmpty())
                item->version = enclosureVersion; // the element form wins when both are there
            if (!item->version.isEmpty())
                items.append(*item);
            item.reset();
        }
    }
    if (reader.hasError())
        return QStringLiteral("the feed is not well-formed XML (%1 at line %2)")
            .arg(reader.errorString())
            .arg(reader.lineNumber());
    if (!sawChannel)
        return QStringLiteral("the feed has no channel");
    return items;
}
