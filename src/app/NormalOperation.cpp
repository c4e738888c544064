// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/NormalOperation.h"

#include "app/AppServices.h"
#include "app/RemoteControl.h"
#include "app/SingleInstance.h"
#include "capture/TextCaptureManager.h"
#include "core/Logging.h"
#include "platform/x11/X11Session.h"
#include "shortcuts/HotkeyManager.h"
#include "shortcuts/ShortcutServices.h"
#include "speech/SpeechManager.h"

#include <QApplication>
#include <QTextStream>

namespace {

void explainWayland()
{
    QTextStream(stderr)
        << "Quillvox: this is a Wayland session. Global shortcuts and selection capture need an X11 session "
           "for now.\n"
           "Bind these commands in your desktop's keyboard settings instead:\n"
           "  quillvox --narrate-selection   quillvox --toggle        quillvox --stop\n"
           "  quillvox --skip-back           quillvox --skip-forward  quillvox --cycle-speed\n"
        << Qt::flush;
}

} // namespace

int runNormalOperation(QApplication &app, const std::optional<QString> &startUrl)
{
    app.setQuitOnLastWindowClosed(false);
    const bool x11 = X11Session::connection() && !X11Session::isWaylandSession();

    SpeechManager &speech = createSharedSpeechManager(x11 ? &TextCaptureManager::shared() : nullptr);
    HotkeyManager *hotkeys = nullptr;
    if (x11) {
        hotkeys = &createSharedHotkeyManager();
        // Not a dialog: the explanation goes to the log once, as the trust prompt would appear once.
        if (!TextCaptureManager::shared().isProcessTrusted(true))
            qCWarning(lcApp).noquote() << TextCaptureManager::shared().untrustedReason();
    } else {
        explainWayland();
    }

    RemoteControl remote(speech, hotkeys);
    SingleInstance instance;
    if (!instance.listen([&remote](const QString &command, const QString &argument) {
            return remote.handle(command, argument);
        })) {
        QTextStream(stderr) << "Quillvox is already running." << Qt::endl;
        return 0;
    }
    if (startUrl)
        remote.routeUrl(*startUrl);
    qCInfo(lcApp) << "ready";
    return app.exec();
}
