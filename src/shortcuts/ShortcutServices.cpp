// SPDX-License-Identifier: GPL-3.0-or-later
#include "shortcuts/ShortcutServices.h"

#include "capture/SelectionCapture.h"
#include "core/UserDefaults.h"
#include "platform/dbus/PortalGlobalShortcuts.h"
#include "platform/gnome/GnomeShellShortcuts.h"
#include "platform/x11/X11GlobalHotKeys.h"
#include "platform/x11/X11Session.h"
#include "shortcuts/HotkeyManager.h"
#include "shortcuts/SpeechManagerControls.h"
#include "speech/SpeechManager.h"

#include <QGuiApplication>

HotkeyManager *createSharedHotkeyManager()
{
    static SpeechManagerControls controls(SpeechManager::shared());
    HotkeyManager *manager = nullptr;
    if (X11Session::connection() && !X11Session::isWaylandSession()) {
        manager = new HotkeyManager(UserDefaults::standard(), std::make_unique<X11GlobalHotKeys>(),
                                    SelectionCapture::shared(), controls, qGuiApp);
    } else if (PortalGlobalShortcuts::isAvailable()) {
        manager = new HotkeyManager(UserDefaults::standard(), std::make_unique<PortalGlobalShortcuts>(),
                                    SelectionCapture::shared(), controls, qGuiApp);
    } else if (GnomeShellShortcuts::isAvailable()) {
        // GNOME before 48: our Shell extension binds the keys (GNOME 48 has the portal above).
        manager = new HotkeyManager(UserDefaults::standard(), std::make_unique<GnomeShellShortcuts>(),
                                    SelectionCapture::shared(), controls, qGuiApp);
    }
    if (manager)
        HotkeyManager::installShared(manager);
    return manager;
}
