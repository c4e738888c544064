// SPDX-License-Identifier: GPL-3.0-or-later
#include "shortcuts/ShortcutServices.h"

#include "capture/SelectionCapture.h"
#include "core/UserDefaults.h"
#include "platform/null/input/NullGlobalHotKeys.h"
#include "platform/x11/X11GlobalHotKeys.h"
#include "platform/x11/X11Session.h"
#include "shortcuts/HotkeyManager.h"
#include "shortcuts/SpeechManagerControls.h"
#include "speech/SpeechManager.h"

#include <QGuiApplication>

HotkeyManager &createSharedHotkeyManager()
{
    std::unique_ptr<GlobalHotKeyBackend> backend;
    if (X11Session::connection())
        backend = std::make_unique<X11GlobalHotKeys>();
    else
        // No global shortcuts without X11: every binding reports itself as not registered.
        backend = std::make_unique<NullGlobalHotKeys>(false);

    static SpeechManagerControls controls(SpeechManager::shared());
    auto *manager = new HotkeyManager(UserDefaults::standard(), std::move(backend),
                                      SelectionCapture::shared(), controls, qGuiApp);
    HotkeyManager::installShared(manager);
    return *manager;
}
