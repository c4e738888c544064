// SPDX-License-Identifier: GPL-3.0-or-later
#include "TrayItemReader.h"

#include <QDBusArgument>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QDateTime>
#include <QDebug>

#include <algorithm>

namespace {

const QString kItemInterface = QStringLiteral("org.kde.StatusNotifierItem");
const QString kMenuInterface = QStringLiteral("com.canonical.dbusmenu");

// "Control+Alt+S" from the dbusmenu form [["Control", "Alt", "S"]].
QString shortcutText(const QVariant &value)
{
    QStringList chords;
    if (value.isValid()) {
        for (const QStringList &keys : qdbus_cast<QList<QStringList>>(value.value<QDBusArgument>()))
            chords.append(keys.join(u'+'));
    }
    return chords.join(u' ');
}

// An a(iiay) of pictures; a size whose bytes do not match is no picture a host can draw.
QList<QSize> readPixmaps(const QDBusArgument &pixmaps)
{
    QList<QSize> sizes;
    pixmaps.beginArray();
    while (!pixmaps.atEnd()) {
        int width = 0;
        int height = 0;
        QByteArray argb;
        pixmaps.beginStructure();
        pixmaps >> width >> height >> argb;
        pixmaps.endStructure();
        sizes.append(argb.size() == width * height * 4 ? QSize(width, height) : QSize());
    }
    pixmaps.endArray();
    return sizes;
}

} // namespace

QVariant TrayItemReader::property(const QString &name) const
{
    QDBusMessage get = QDBusMessage::createMethodCall(m_item.service, m_item.path,
                                                      QStringLiteral("org.freedesktop.DBus.Properties"),
                                                      QStringLiteral("Get"));
    get << kItemInterface << name;
    return QDBusConnection::sessionBus().call(get).arguments().value(0).value<QDBusVariant>().variant();
}

QList<QSize> TrayItemReader::pixmapSizes() const
{
    return readPixmaps(property(QStringLiteral("IconPixmap")).value<QDBusArgument>());
}

QString TrayItemReader::toolTip() const
{
    const QDBusArgument toolTip = property(QStringLiteral("ToolTip")).value<QDBusArgument>();
    QString iconName, title, description;
    toolTip.beginStructure();
    toolTip >> iconName;
    readPixmaps(toolTip);
    toolTip >> title >> description;
    toolTip.endStructure();
    return description.isEmpty() ? title : title + u'\n' + description;
}

bool TrayItemReader::call(const QString &method) const
{
    QDBusMessage message =
        QDBusMessage::createMethodCall(m_item.service, m_item.path, kItemInterface, method);
    message << 0 << 0;
    return QDBusConnection::sessionBus().call(message).type() == QDBusMessage::ReplyMessage;
}

QString TrayItemReader::menuPath() const
{
    return property(QStringLiteral("Menu")).value<QDBusObjectPath>().path();
}

QList<TrayItemReader::Entry> TrayItemReader::menu() const
{
    QDBusMessage getLayout = QDBusMessage::createMethodCall(m_item.service, menuPath(), kMenuInterface,
                                                            QStringLiteral("GetLayout"));
    getLayout << 0 << -1 << QStringList();
    const QDBusMessage reply = QDBusConnection::sessionBus().call(getLayout);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().size() != 2) {
        qWarning() << "GetLayout:" << reply.errorMessage();
        return {};
    }
    // (ia{sv}av), each child the same; our menu has no submenus.
    const auto read = [](const QDBusArgument &node, QVariantList *children = nullptr) {
        Entry entry;
        node.beginStructure();
        node >> entry.id >> entry.properties;
        if (children)
            node >> *children;
        node.endStructure();
        return entry;
    };
    QVariantList children;
    read(reply.arguments().at(1).value<QDBusArgument>(), &children);
    QList<Entry> entries;
    for (const QVariant &child : std::as_const(children))
        entries.append(read(child.value<QDBusArgument>()));
    return entries;
}

QString TrayItemReader::text(const Entry &entry)
{
    if (entry.properties.value(QStringLiteral("type")).toString() == u"separator")
        return QStringLiteral("-");
    QString text = entry.properties.value(QStringLiteral("label")).toString();
    if (!entry.properties.value(QStringLiteral("enabled"), true).toBool())
        text = QLatin1Char('[') + text + QLatin1Char(']');
    const QString shortcut = shortcutText(entry.properties.value(QStringLiteral("shortcut")));
    if (!shortcut.isEmpty())
        text += QLatin1Char('\t') + shortcut;
    return text;
}

QStringList TrayItemReader::shownMenu() const
{
    QStringList shown;
    for (const Entry &entry : menu())
        if (entry.properties.value(QStringLiteral("visible"), true).toBool())
            shown.append(text(entry));
    return shown;
}

bool TrayItemReader::click(const QString &label) const
{
    const QList<Entry> entries = menu();
    const auto entry = std::ranges::find_if(entries, [&](const Entry &e) {
        return e.properties.value(QStringLiteral("label")).toString() == label;
    });
    if (entry == entries.end()) {
        qWarning() << "no menu entry" << label;
        return false;
    }
    QDBusMessage event =
        QDBusMessage::createMethodCall(m_item.service, menuPath(), kMenuInterface, QStringLiteral("Event"));
    event << entry->id << QStringLiteral("clicked") << QVariant::fromValue(QDBusVariant(0))
          << uint(QDateTime::currentSecsSinceEpoch());
    // "Quit" may end the app before it answers.
    return QDBusConnection::sessionBus().send(event);
}
