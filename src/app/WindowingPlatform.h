// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QString>

// Which of Qt's windowing platforms Quillvox runs on. Qt 6.4 runs one per process, and the floating
// widget decides it: it must stay above other windows, at the top of the screen, and never take the
// keyboard. Measured with a native Wayland window against the same window on XWayland:
//  - sway 1.7 (headless): natively it floats above tiled windows, centred rather than at the top, and the
//    focused window keeps the keyboard. Native.
//  - KWin 5.27 (kwin_wayland --virtual): natively it opens centred (470,330 on 1280x800), in the normal
//    layer (not kept above), and KWin makes it the active window, taking the keyboard from the editor the
//    user selected text in. On XWayland it sits at the top centre (470,40), kept above on all desktops,
//    out of the taskbar, and the editor stays active. XWayland.
//  - GNOME Shell 43 (nested): natively it opens where GNOME places new windows, in the normal layer (a
//    maximised window covers it), and GNOME gives it the keyboard. On XWayland it sits at the top centre,
//    above a maximised window, and the editor keeps the keyboard. XWayland; where the widget is native all
//    the same, our Shell extension places it.
//  - Other desktops: native, as Qt would choose.
// Capture and shortcuts are unaffected: they go through the desktop's portal or its Wayland clipboard
// whatever Qt's platform is.
namespace WindowingPlatform {

struct Session
{
    QString currentDesktop; // XDG_CURRENT_DESKTOP, colon-separated
    bool wayland = false;   // WAYLAND_DISPLAY set
    bool xwayland = false;  // DISPLAY set as well
    bool userChose = false; // QT_QPA_PLATFORM set
};

// The platform to ask Qt for; empty to leave the choice to Qt.
QByteArray choose(const Session &session);

// Applies the choice for this process's environment, with how windows deliver their frames; call before
// the application object exists.
void applyForThisSession();

} // namespace WindowingPlatform
