// SPDX-License-Identifier: GPL-3.0-or-later
#include "capture/SelectionCapture.h"

#include "capture/TextCaptureManager.h"
#include "core/Logging.h"
#include "platform/dbus/PortalRemoteKeyboard.h"
#include "platform/gnome/GnomeShellExtension.h"
#include "platform/null/input/FixedWindowFocus.h"
#include "platform/wayland/WaylandClipboard.h"
#include "platform/wayland/WaylandSelection.h"

#include <QGuiApplication>

namespace {

// wl-paste and our GNOME Shell extension answer within milliseconds; a client that keeps the selection but
// never sends it must not hold the shortcut up for long.
constexpr std::chrono::milliseconds kPasteTimeLimit{1000};

CaptureBackend syntheticCopy()
{
    return {[] { return TextCaptureManager::shared().untrustedReason(); },
            [] { return TextCaptureManager::shared().captureSelectedText(); }};
}

std::optional<QString> ownFocusedSelection()
{
    // Our own window in front (the onboarding's sample text): its editor answers directly.
    if (!QGuiApplication::focusWindow())
        return std::nullopt;
    std::optional<QString> own = TextCaptureManager::focusedEditorSelection();
    if (own && own->isEmpty())
        return std::nullopt;
    return own;
}

CaptureBackend gnomeShellSelection()
{
    return {[] { return GnomeShellExtension::explanation(GnomeShellExtension::support()); },
            []() -> std::optional<QString> {
                if (std::optional<QString> own = ownFocusedSelection())
                    return own;
                return GnomeShellExtension::readSelection(kPasteTimeLimit);
            }};
}

CaptureBackend waylandPrimarySelection()
{
    return {[] { return WaylandSelection::explanation(WaylandSelection::support()); },
            []() -> std::optional<QString> {
                if (std::optional<QString> own = ownFocusedSelection())
                    return own;
                return WaylandSelection::readPrimarySelection(kPasteTimeLimit);
            }};
}

// KDE Plasma: data-control shares the clipboard but not the highlighted text, so the selection is copied
// with keys pressed through the remote-desktop portal and read from the clipboard, which is then put back
// (its text; wl-copy offers one format).
CaptureBackend waylandClipboardAfterCopy()
{
    const auto reason = []() -> QString {
        // Asked once: a desktop does not gain or lose its portal while we run.
        static const bool portal = PortalRemoteKeyboard::isAvailable();
        if (portal)
            return {};
        return QCoreApplication::translate(
            "SelectionCapture",
            "This Wayland desktop shares the clipboard with Quillvox but not the highlighted text, and it "
            "offers no remote desktop portal through which Quillvox could copy it. Log in to an X11 session "
            "to narrate selected text.");
    };
    return {reason, []() -> std::optional<QString> {
                if (std::optional<QString> own = ownFocusedSelection())
                    return own;
                static TextCaptureManager *copier = [] {
                    TextCaptureManager::Backends backends;
                    backends.keyboard = std::make_unique<PortalRemoteKeyboard>();
                    backends.clipboard = std::make_unique<WaylandClipboard>();
                    backends.windows = std::make_unique<FixedWindowFocus>();
                    return new TextCaptureManager(std::move(backends), qGuiApp);
                }();
                return copier->captureSelectedText();
            }};
}

} // namespace

SelectionCapture::SelectionCapture(QList<CaptureBackend> backends, QObject *parent)
    : QObject(parent)
    , m_backends(std::move(backends))
{}

SelectionCapture &SelectionCapture::shared()
{
    static SelectionCapture *instance = [] {
        // In a Wayland session synthetic X11 keys reach X11 clients only, so the compositor's own
        // selection comes first; its reason is the one that explains a session where nothing works.
        // On GNOME our Shell extension is the way, and what the user is told about when it is off.
        QList<CaptureBackend> backends;
        if (GnomeShellExtension::isGnomeWayland())
            backends = {gnomeShellSelection(), waylandPrimarySelection(), syntheticCopy()};
        else if (WaylandSelection::support() == WaylandSelection::Support::ClipboardOnly)
            backends = {waylandClipboardAfterCopy(), syntheticCopy()};
        else if (WaylandSelection::support() != WaylandSelection::Support::NotWayland)
            backends = {waylandPrimarySelection(), syntheticCopy()};
        else
            backends = {syntheticCopy()};
        // Lives as long as the application, which cleans it up with its other children.
        return new SelectionCapture(std::move(backends), qGuiApp);
    }();
    return *instance;
}

const CaptureBackend *SelectionCapture::usable() const
{
    for (const CaptureBackend &backend : m_backends) {
        if (backend.unavailableReason().isEmpty())
            return &backend;
    }
    return nullptr;
}

bool SelectionCapture::isProcessTrusted(bool prompt)
{
    if (usable())
        return true;
    if (prompt) {
        const QString why = untrustedReason();
        qCWarning(lcCapture).noquote() << why;
        Q_EMIT permissionExplanationRequested(why);
    }
    return false;
}

std::optional<QString> SelectionCapture::captureSelectedText()
{
    const CaptureBackend *backend = usable();
    if (!backend)
        return std::nullopt;
    return backend->capture();
}

QString SelectionCapture::untrustedReason() const
{
    if (usable() || m_backends.isEmpty())
        return {};
    return m_backends.first().unavailableReason();
}
