// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>
#include <QPointer>

#include <memory>

class FloatingWindowController;
class QAction;
class QMenu;
class QSystemTrayIcon;
class SelectionSource;
class SpeechManager;

// The application's permanent presence: the tray item (a StatusNotifierItem where a host runs, an
// XEmbed icon on older trays) with its menu. Its icon and items follow the speech controller and the
// widget as they change.
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
    void setWidget(FloatingWindowController *widget);

    QMenu *menu() const { return m_menu.get(); }
    QSystemTrayIcon *trayIcon() const { return m_tray; }

private:
    void updateIcon();
    void updateItems();
    void narrateSelection();
    void expandWidget();

    SpeechManager &m_speech;
    SelectionSource &m_selection;
    QPointer<FloatingWindowController> m_widget;
    QMetaObject::Connection m_expandedConnection;
    std::unique_ptr<QMenu> m_menu; // QMenu is a widget: it has no QObject parent here
    QSystemTrayIcon *m_tray;
    QAction *m_narrate;
    QAction *m_expand;
    QAction *m_pause;
    QAction *m_stop;
};
