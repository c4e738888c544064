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
    // The widget's waveform draws up to 60 small frames a second: each is drawn when asked for rather
    // than 5 ms later, which cost the GUI thread a wake-up per frame. (Drawing X11 windows without
    // shared-memory images would save another, but then GNOME 43's XWayland did not show the widget.)
    if (!qEnvironmentVariableIsSet("QT_QPA_UPDATE_IDLE_TIME"))
        qputenv("QT_QPA_UPDATE_IDLE_TIME", "0");
}

} // namespace WindowingPlatform
