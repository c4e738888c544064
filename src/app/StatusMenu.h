// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>
#include <QPointer>

#include <memory>

class FloatingWindowController;
class HotkeyManager;
class PortalColorScheme;
class QAction;
class QMenu;
class QSystemTrayIcon;
class SelectionSource;
class SpeechManager;
class StatusNotifierItem;

// The application's permanent presence: the tray item with its menu. Where a panel hosts status
// notifier items it is one of ours (a left click opens the menu, the middle one plays or pauses);
// otherwise Qt's XEmbed icon on older trays. Its icon, tooltip and items follow the speech controller,
// the widget and the narration shortcut as they change.
class StatusMenu : public QObject
{
    Q_OBJECT

public:
    // `widget` none: no "Expand Widget" (the widget is not set up yet).
    StatusMenu(SpeechManager &speech, SelectionSource &selection, FloatingWindowController *widget,
               QObject *parent = nullptr);
    ~StatusMenu() override;

    // Puts the item on the tray; without a tray host it stays hidden and the application goes on.
    void show();
    // Takes the item off the tray (another host shows the menu).
    void hide();
    void setWidget(FloatingWindowController *widget);
    // The narration shortcut shown beside "Narrate Selection"; none shows no hint.
    void setHotkeys(HotkeyManager *hotkeys);

    QMenu *menu() const { return m_menu.get(); }

private:
    void updateIcon();
    void updateItems();
    void updateToolTip();
    void updateNarrateShortcut();
    void showXEmbedIcon();
    void openMenuAt(const QPoint &position);
    void narrateSelection();
    void expandWidget();

    SpeechManager &m_speech;
    SelectionSource &m_selection;
    QPointer<FloatingWindowController> m_widget;
    QMetaObject::Connection m_expandedConnection;
    QPointer<HotkeyManager> m_hotkeys;
    std::unique_ptr<QMenu> m_menu; // QMenu is a widget: it has no QObject parent here
    StatusNotifierItem *m_item;
    PortalColorScheme *m_colorScheme;
    QSystemTrayIcon *m_tray = nullptr;
    QAction *m_narrate;
    QAction *m_expand;
    QAction *m_narrateSeparator;
    QAction *m_pause;
    QAction *m_stop;
    // The narrated text and the head of it the tooltip shows: the time in the tooltip changes several
    // times a second while the text stays.
    QString m_toolTipSource;
    QString m_toolTipHead;
};
