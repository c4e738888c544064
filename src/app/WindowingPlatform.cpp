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
}

} // namespace WindowingPlatform
