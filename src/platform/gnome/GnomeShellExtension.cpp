// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/gnome/GnomeShellExtension.h"

#include "core/Logging.h"

#include <QCoreApplication>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusReply>
#include <QDBusVariant>
#include <QProcess>
#include <QStandardPaths>

namespace GnomeShellExtension {

namespace {

// org.gnome.Shell.Extensions' states; GNOME 45 renamed ENABLED and DISABLED to ACTIVE and INACTIVE.
enum ShellState { Enabled = 1, Disabled = 2, Error = 3, OutOfDate = 4, Initialized = 6 };

constexpr int kQueryTimeoutMs = 1000;

std::optional<int> stateInShell(QDBusConnection &bus)
{
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.gnome.Shell"), QStringLiteral("/org/gnome/Shell"),
        QStringLiteral("org.gnome.Shell.Extensions"), QStringLiteral("GetExtensionInfo"));
    call << QString::fromLatin1(kUuid);
    const QDBusReply<QVariantMap> info = bus.call(call, QDBus::Block, kQueryTimeoutMs);
    // An unknown uuid gives an empty dictionary.
    if (!info.isValid() || !info.value().contains(QStringLiteral("state")))
        return std::nullopt;
    return int(info.value().value(QStringLiteral("state")).toDouble());
}

bool installedOnDisk()
{
    return !QStandardPaths::locate(QStandardPaths::GenericDataLocation,
                                   QStringLiteral("gnome-shell/extensions/") + QLatin1String(kUuid) +
                                       QStringLiteral("/metadata.json"))
                .isEmpty();
}

} // namespace

Support decide(const ShellFacts &facts)
{
    if (!facts.gnomeWayland)
        return Support::NotGnome;
    if (facts.serving)
        return Support::Available;
    if (!facts.state)
        return facts.installed ? Support::NeedsRestart : Support::NotInstalled;
    switch (*facts.state) {
    case Disabled:
    case Initialized:
        return Support::NotEnabled;
    default:
        // Enabled without its name on the bus failed as surely as an error state.
        return Support::Failed;
    }
}

bool isGnomeWayland()
{
    const QStringList desktops = qEnvironmentVariable("XDG_CURRENT_DESKTOP").split(u':');
    return desktops.contains(QStringLiteral("GNOME"), Qt::CaseInsensitive) &&
           !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
}

Support support(QDBusConnection bus)
{
    ShellFacts facts;
    facts.gnomeWayland = isGnomeWayland();
    if (!facts.gnomeWayland || !bus.isConnected())
        return decide(facts);
    facts.serving = bus.interface()->isServiceRegistered(QString::fromLatin1(kService));
    if (!facts.serving) {
        facts.state = stateInShell(bus);
        facts.installed = installedOnDisk();
    }
    return decide(facts);
}

QString explanation(Support support)
{
    switch (support) {
    case Support::Available:
        return {};
    case Support::NotGnome:
        return QCoreApplication::translate("GnomeShellExtension", "This is not GNOME on Wayland.");
    case Support::NotInstalled:
        return QCoreApplication::translate(
            "GnomeShellExtension",
            "GNOME on Wayland lets applications read neither the text highlighted in other applications nor "
            "system-wide shortcuts. Quillvox does both through its GNOME Shell extension, which is not "
            "installed: install Quillvox's package, then log out and back in.");
    case Support::NeedsRestart:
        return QCoreApplication::translate(
            "GnomeShellExtension",
            "The Quillvox extension for GNOME Shell was installed after you logged in. Log out and back in, "
            "then enable it.");
    case Support::NotEnabled:
        return QCoreApplication::translate(
            "GnomeShellExtension",
            "On GNOME, Quillvox reads the highlighted text and listens for its shortcuts through its GNOME "
            "Shell extension, which is switched off. Enable the Quillvox extension.");
    case Support::Failed:
        return QCoreApplication::translate(
            "GnomeShellExtension",
            "The Quillvox extension could not start in this version of GNOME Shell, so Quillvox cannot read "
            "the highlighted text here. Log in to an X11 session to narrate selected text.");
    }
    return {};
}

std::optional<QString> readSelection(std::chrono::milliseconds timeLimit, QDBusConnection bus)
{
    const QDBusMessage call =
        QDBusMessage::createMethodCall(QString::fromLatin1(kService), QString::fromLatin1(kPath),
                                       QString::fromLatin1(kInterface), QStringLiteral("ReadSelection"));
    const QDBusReply<QString> text = bus.call(call, QDBus::Block, int(timeLimit.count()));
    if (!text.isValid()) {
        qCWarning(lcCapture) << "the GNOME Shell extension did not answer:" << text.error().name();
        return std::nullopt;
    }
    if (text.value().isEmpty())
        return std::nullopt;
    return text.value();
}

bool enable()
{
    if (QProcess::startDetached(QStringLiteral("gnome-extensions"),
                                {QStringLiteral("enable"), QString::fromLatin1(kUuid)}))
        return true;
    return QProcess::startDetached(QStringLiteral("gnome-extensions-app"), {});
}

QDBusArgument &operator<<(QDBusArgument &argument, const KeyRequest &request)
{
    argument.beginStructure();
    argument << request.id << request.accelerator;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, KeyRequest &request)
{
    argument.beginStructure();
    argument >> request.id >> request.accelerator;
    argument.endStructure();
    return argument;
}

} // namespace GnomeShellExtension
