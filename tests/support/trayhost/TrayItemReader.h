// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "StatusNotifierWatcher.h"

#include <QSize>
#include <QVariant>

// A tray item as a panel reads it: its properties over org.kde.StatusNotifierItem and its menu over
// com.canonical.dbusmenu, on the session bus.
class TrayItemReader
{
public:
    explicit TrayItemReader(const StatusNotifierWatcher::Item &item)
        : m_item(item)
    {}

    // An org.kde.StatusNotifierItem property; invalid when the item does not answer.
    QVariant property(const QString &name) const;
    QString iconName() const { return property(QStringLiteral("IconName")).toString(); }
    QList<QSize> pixmapSizes() const;
    // The tooltip's title and description, joined by a newline.
    QString toolTip() const;
    bool call(const QString &method) const;

    // What a person sees: the shown entries, "-" for a separator, a disabled one in brackets, the key
    // hint after a tab ("Narrate Selection\tControl+Alt+S").
    QStringList shownMenu() const;
    // Clicks the entry labelled `label` as a panel does when the user picks it.
    bool click(const QString &label) const;

private:
    struct Entry
    {
        int id = 0;
        QVariantMap properties;
    };
    static QString text(const Entry &entry);
    QString menuPath() const;
    QList<Entry> menu() const;

    StatusNotifierWatcher::Item m_item;
};
