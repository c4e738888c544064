// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/WindowingPlatform.h"

#include <QStringList>

namespace WindowingPlatform {

QByteArray choose(const Session &session)
{
    if (session.userChose || !session.wayland || !session.xwayland)
        return {};
    const QStringList desktops = session.currentDesktop.split(u':', Qt::SkipEmptyParts);
    const bool placesNoNativeWidget = desktops.contains(QStringLiteral("KDE"), Qt::CaseInsensitive) ||
                                      desktops.contains(QStringLiteral("GNOME"), Qt::CaseInsensitive);
    return placesNoNativeWidget ? QByteArrayLiteral("xcb") : QByteArray();
}

void applyForThisSession()
{
    const QByteArray platform =
        choose({qEnvironmentVariable("XDG_CURRENT_DESKTOP"), !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY"),
                !qEnvironmentVariableIsEmpty("DISPLAY"), !qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")});
    if (!platform.isEmpty())
        qputenv("QT_QPA_PLATFORM", platform);
    // The widget's waveform draws up to 60 small frames a second. A frame is drawn when asked for rather
    // than 5 ms later, and X11 windows are drawn without shared-memory images, whose completion event
    // the next frame waits for: each cost the GUI thread a wake-up per frame (about half of them while
    // the widget plays), for a few bars' pixels. Either can still be set otherwise from outside.
    if (!qEnvironmentVariableIsSet("QT_QPA_UPDATE_IDLE_TIME"))
        qputenv("QT_QPA_UPDATE_IDLE_TIME", "0");
    if (!qEnvironmentVariableIsSet("QT_XCB_NO_MITSHM"))
        qputenv("QT_XCB_NO_MITSHM", "1");
}

} // namespace WindowingPlatform
