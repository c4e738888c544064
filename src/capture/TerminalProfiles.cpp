// SPDX-License-Identifier: GPL-3.0-or-later
#include "capture/TerminalProfiles.h"

#include <QStringList>

namespace {

// WM_CLASS names, compared without case; either half may match.
const QStringList kPrimarySelectionTerminals = {
    QStringLiteral("xterm"), QStringLiteral("uxterm"), QStringLiteral("urxvt"),
    QStringLiteral("rxvt"),  QStringLiteral("aterm"),  QStringLiteral("eterm"),
};

const QStringList kCopyShortcutTerminals = {
    QStringLiteral("gnome-terminal"),
    QStringLiteral("gnome-terminal-server"),
    QStringLiteral("kgx"),
    QStringLiteral("org.gnome.console"),
    QStringLiteral("ptyxis"),
    QStringLiteral("org.gnome.ptyxis"),
    QStringLiteral("konsole"),
    QStringLiteral("yakuake"),
    QStringLiteral("xfce4-terminal"),
    QStringLiteral("mate-terminal"),
    QStringLiteral("lxterminal"),
    QStringLiteral("qterminal"),
    QStringLiteral("terminator"),
    QStringLiteral("tilix"),
    QStringLiteral("com.gexperts.tilix"),
    QStringLiteral("guake"),
    QStringLiteral("tilda"),
    QStringLiteral("sakura"),
    QStringLiteral("terminology"),
    QStringLiteral("alacritty"),
    QStringLiteral("kitty"),
    QStringLiteral("org.wezfurlong.wezterm"),
    QStringLiteral("st"),
    QStringLiteral("st-256color"),
    QStringLiteral("deepin-terminal"),
    QStringLiteral("cool-retro-term"),
    QStringLiteral("contour"),
    QStringLiteral("blackbox"),
    QStringLiteral("com.raggesilver.blackbox"),
    QStringLiteral("foot"),
    QStringLiteral("x-terminal-emulator"),
};

bool matches(const QStringList &names, const QString &instanceName, const QString &className)
{
    return names.contains(instanceName, Qt::CaseInsensitive) ||
           names.contains(className, Qt::CaseInsensitive);
}

} // namespace

TerminalProfiles::CopyMethod TerminalProfiles::copyMethod(const QString &instanceName,
                                                          const QString &className)
{
    if (matches(kPrimarySelectionTerminals, instanceName, className))
        return CopyMethod::PrimarySelection;
    if (matches(kCopyShortcutTerminals, instanceName, className))
        return CopyMethod::TerminalCopyShortcut;
    return CopyMethod::CopyShortcut;
}
