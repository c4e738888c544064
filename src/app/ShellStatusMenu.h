// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QDBusConnection>
#include <QObject>

class QMenu;
class SpeechManager;
class StatusMenu;

// The tray's status menu on the session bus, for a desktop shell that draws it itself: our GNOME Shell
// extension's top-bar indicator. com.vantor.Quillvox.StatusMenu at kPath offers
//   GetMenu() -> (b playing, a(ssbb) items): what the menu shows now, top to bottom; each item is
//       (id, label, enabled, separator), hidden items and separators left out;
//   Activate(s id): runs the item's action, the one the tray menu runs;
//   Changed(): the menu or the playing state changed.
// While the extension runs, the tray item stays hidden: GNOME shows the menu once, in its top bar.
class ShellStatusMenu : public QObject
{
    Q_OBJECT

public:
    static constexpr char kPath[] = "/com/vantor/Quillvox/StatusMenu";
    static constexpr char kInterface[] = "com.vantor.Quillvox.StatusMenu";

    struct Item
    {
        QString id;
        QString label;
        bool enabled = false;
        bool separator = false;
    };

    ShellStatusMenu(StatusMenu &menu, SpeechManager &speech,
                    QDBusConnection bus = QDBusConnection::sessionBus(), QObject *parent = nullptr);
    ~ShellStatusMenu() override;

    // Exports the menu and shows the tray item unless the extension is there to show the menu.
    void start();

private:
    // The menu's actions as the bus offers them.
    static QList<Item> items(const QMenu &menu);
    // Triggers the visible, enabled item `id` of `menu` from the event loop; false when there is none.
    static bool activate(QMenu &menu, const QString &id);

    class BusObject;

    void scheduleChanged();
    void followExtension(bool present);

    StatusMenu &m_menu;
    SpeechManager &m_speech;
    QDBusConnection m_bus;
    BusObject *m_object = nullptr;
    bool m_changePending = false;
};
