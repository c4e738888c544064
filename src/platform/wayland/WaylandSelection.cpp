// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/wayland/WaylandSelection.h"

#include "core/Logging.h"
#include "platform/wayland/WaylandClipboard.h"
#include "platform/wayland/WlClipboardTool.h"

#include <QCoreApplication>
#include <QStandardPaths>

#include <cstring>

#include <wayland-client.h>

namespace WaylandSelection {

namespace {

const QString kReader = QStringLiteral("wl-paste");

void announceGlobal(void *data, wl_registry *, uint32_t, const char *interface, uint32_t version)
{
    auto *facts = static_cast<CompositorFacts *>(data);
    if (std::strcmp(interface, "zwlr_data_control_manager_v1") == 0)
        facts->wlrDataControlVersion = version;
    else if (std::strcmp(interface, "ext_data_control_manager_v1") == 0)
        facts->extDataControl = true;
}

void removeGlobal(void *, wl_registry *, uint32_t) {}

const wl_registry_listener kRegistryListener{announceGlobal, removeGlobal};

CompositorFacts askCompositor()
{
    CompositorFacts facts;
    // A connection of our own, whatever Qt's platform is: Qt may run on XWayland.
    wl_display *display = wl_display_connect(nullptr);
    if (!display)
        return facts;
    wl_registry *registry = wl_display_get_registry(display);
    wl_registry_add_listener(registry, &kRegistryListener, &facts);
    facts.connected = wl_display_roundtrip(display) >= 0;
    wl_registry_destroy(registry);
    wl_display_disconnect(display);
    return facts;
}

// Whether a compositor that announces the primary selection really sends it. wl-paste waits one round trip
// for it and says so when it did not come; an empty selection is "No selection" instead.
bool primaryWithheld()
{
    const WlClipboardTool::Outcome probe = WlClipboardTool::run(
        kReader, {QStringLiteral("--primary"), QStringLiteral("--list-types")}, std::chrono::seconds(1));
    return QString::fromUtf8(probe.errors).contains(u"not seem to support primary");
}

} // namespace

Support decide(bool waylandSession, const CompositorFacts &compositor, bool haveReader)
{
    if (!waylandSession)
        return Support::NotWayland;
    if (!compositor.connected)
        return Support::CompositorUnreachable;
    if (!compositor.extDataControl && compositor.wlrDataControlVersion == 0)
        return Support::NoDataControl;
    if (!compositor.extDataControl && (compositor.wlrDataControlVersion < 2 || compositor.primaryWithheld))
        return Support::ClipboardOnly;
    return haveReader ? Support::Available : Support::NoReader;
}

Support support()
{
    static const Support answer = [] {
        const bool waylandSession = !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
        const bool haveReader = !QStandardPaths::findExecutable(kReader).isEmpty();
        CompositorFacts facts = waylandSession ? askCompositor() : CompositorFacts{};
        if (haveReader && facts.wlrDataControlVersion >= 2 && !facts.extDataControl)
            facts.primaryWithheld = primaryWithheld();
        const Support s = decide(waylandSession, facts, haveReader);
        if (waylandSession)
            qCInfo(lcCapture) << "Wayland selection support:" << int(s);
        return s;
    }();
    return answer;
}

QString explanation(Support support)
{
    switch (support) {
    case Support::Available:
        return {};
    case Support::NotWayland:
        return QCoreApplication::translate("WaylandSelection", "This is not a Wayland session.");
    case Support::CompositorUnreachable:
        return QCoreApplication::translate(
            "WaylandSelection",
            "Quillvox cannot connect to the Wayland compositor named by WAYLAND_DISPLAY, so "
            "it cannot read the text selected in other applications.");
    case Support::NoDataControl:
        return QCoreApplication::translate(
            "WaylandSelection",
            "This Wayland desktop does not let applications read the text highlighted in other applications "
            "(it offers no data-control protocol). Log in to an X11 session to narrate selected text.");
    case Support::ClipboardOnly:
        return QCoreApplication::translate(
            "WaylandSelection",
            "This Wayland desktop shares the clipboard with Quillvox but not the highlighted text (its "
            "data-control protocol has no primary selection). Log in to an X11 session to narrate selected "
            "text.");
    case Support::NoReader:
        return QCoreApplication::translate(
            "WaylandSelection", "Reading the highlighted text on Wayland needs wl-paste. Install the "
                                "wl-clipboard package.");
    }
    return {};
}

std::optional<QString> readPrimarySelection(std::chrono::milliseconds timeLimit)
{
    // "text" picks the best text type the selection offers; nothing highlighted reads as nothing.
    const std::optional<QByteArray> text =
        WaylandClipboard(timeLimit).data(SystemClipboard::Buffer::Primary, QStringLiteral("text"));
    if (!text || text->isEmpty())
        return std::nullopt;
    return QString::fromUtf8(*text);
}

} // namespace WaylandSelection
