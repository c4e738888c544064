// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QDBusArgument>
#include <QDBusConnection>
#include <QMetaType>
#include <QString>

#include <chrono>
#include <optional>

// Our GNOME Shell extension (gnome-extension/ in the source tree): on GNOME under Wayland it is the only
// way to read the highlighted text of other applications and to bind system-wide keys before the
// GlobalShortcuts portal arrived (GNOME 48). While enabled it owns kService on the session bus.
namespace GnomeShellExtension {

inline constexpr char kUuid[] = "quillvox@vantor.com";
inline constexpr char kService[] = "com.vantor.Quillvox.Shell";
inline constexpr char kPath[] = "/com/vantor/Quillvox/Shell";
inline constexpr char kInterface[] = "com.vantor.Quillvox.Shell";

enum class Support {
    Available,
    NotGnome,     // not GNOME Shell on Wayland
    NotInstalled, // GNOME Shell has no extension of that uuid, and none is installed
    NeedsRestart, // installed after GNOME Shell started: it loads extensions at login only
    NotEnabled,   // installed and known, switched off
    Failed,       // GNOME Shell could not start it (an error, or a GNOME Shell version it does not support)
};

struct ShellFacts
{
    bool gnomeWayland = false;
    // The extension owns kService now.
    bool serving = false;
    // The state GNOME Shell reports for kUuid (org.gnome.Shell.Extensions); none when it knows no such
    // extension.
    std::optional<int> state;
    // An extension folder of kUuid exists on disk.
    bool installed = false;
};

Support decide(const ShellFacts &facts);

// XDG_CURRENT_DESKTOP names GNOME and WAYLAND_DISPLAY is set.
bool isGnomeWayland();

// Asked anew every time (a few milliseconds): the user may enable the extension while we run.
Support support(QDBusConnection bus = QDBusConnection::sessionBus());

// What the user can do about it; empty when the extension works.
QString explanation(Support support);

// The highlighted text, or the clipboard when nothing is highlighted; nothing when both are empty or the
// extension did not answer in time.
std::optional<QString> readSelection(std::chrono::milliseconds timeLimit,
                                     QDBusConnection bus = QDBusConnection::sessionBus());

// Switches the extension on with gnome-extensions, or opens the Extensions app where that tool is
// missing. False when neither could be started.
bool enable();

// One (id, accelerator) pair of BindShortcuts.
struct KeyRequest
{
    QString id;
    QString accelerator;
};

QDBusArgument &operator<<(QDBusArgument &argument, const KeyRequest &request);
const QDBusArgument &operator>>(const QDBusArgument &argument, KeyRequest &request);

} // namespace GnomeShellExtension

Q_DECLARE_METATYPE(GnomeShellExtension::KeyRequest)
