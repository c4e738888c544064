// SPDX-License-Identifier: GPL-3.0-or-later
#include "capture/TextCaptureManager.h"

#include "capture/ClipboardTargets.h"
#include "capture/TerminalProfiles.h"
#include "core/Logging.h"
#include "platform/KeyboardInjector.h"
#include "platform/WindowFocus.h"
#include "platform/null/input/FixedWindowFocus.h"
#include "platform/null/input/MemoryClipboard.h"
#include "platform/null/input/NullKeyboardInjector.h"
#include "platform/x11/X11Clipboard.h"
#include "platform/x11/X11KeyboardInjector.h"
#include "platform/x11/X11WindowFocus.h"

#include <QGuiApplication>
#include <QInputMethodQueryEvent>
#include <QThread>

#include <linux/input-event-codes.h>

namespace {

using Buffer = SystemClipboard::Buffer;
using Availability = KeyboardInjector::Availability;

// The system copy command is the key labelled C on an ANSI keyboard with Command, which is Ctrl here;
// the keys are positional, whatever the layout.
constexpr quint32 kCopyKey = KEY_C;
constexpr quint32 kCopyModifierKey = KEY_LEFTCTRL;
constexpr quint32 kTerminalCopyExtraKey = KEY_LEFTSHIFT;

QString explanation(Availability availability)
{
    switch (availability) {
    case Availability::Available:
        return {};
    case Availability::WaylandSession:
        return QObject::tr("Quillvox copies the selected text with X11 keyboard events, which a Wayland "
                           "session does not pass on to other applications. Log in to an X11 (Xorg) session "
                           "to narrate text selected in other applications.");
    case Availability::NoDisplay:
        return QObject::tr("Quillvox is not connected to an X11 display, so it cannot read the text "
                           "selected in other applications.");
    case Availability::NoXTest:
        return QObject::tr("The X server does not offer the XTEST extension, which Quillvox needs to copy "
                           "the selected text. Enable XTEST in the X server configuration.");
    }
    return {};
}

} // namespace

TextCaptureManager::TextCaptureManager(Backends backends, QObject *parent)
    : QObject(parent)
    , m_backends(std::move(backends))
{
    if (!m_backends.sleep)
        m_backends.sleep = [](std::chrono::milliseconds duration) { QThread::msleep(duration.count()); };
    if (!m_backends.ownSelection)
        m_backends.ownSelection = &TextCaptureManager::focusedEditorSelection;
}

TextCaptureManager::~TextCaptureManager() = default;

TextCaptureManager &TextCaptureManager::shared()
{
    static TextCaptureManager *instance = [] {
        Backends backends;
        if (QGuiApplication::platformName() == u"xcb") {
            backends.keyboard = std::make_unique<X11KeyboardInjector>();
            backends.clipboard = std::make_unique<X11Clipboard>();
            backends.windows = std::make_unique<X11WindowFocus>();
        } else {
            // Without X11 there is nothing to copy with; isProcessTrusted says why.
            const Availability why = QGuiApplication::platformName() == u"wayland"
                                         ? Availability::WaylandSession
                                         : Availability::NoDisplay;
            backends.keyboard = std::make_unique<NullKeyboardInjector>(why);
            backends.clipboard = std::make_unique<MemoryClipboard>();
            backends.windows = std::make_unique<FixedWindowFocus>();
        }
        // Lives as long as the application, which cleans it up with its other children.
        return new TextCaptureManager(std::move(backends), qGuiApp);
    }();
    return *instance;
}

bool TextCaptureManager::isProcessTrusted(bool prompt)
{
    const Availability availability = m_backends.keyboard->availability();
    if (availability == Availability::Available)
        return true;
    if (prompt) {
        const QString why = explanation(availability);
        qCWarning(lcCapture).noquote() << why;
        Q_EMIT permissionExplanationRequested(why);
    }
    return false;
}

QString TextCaptureManager::untrustedReason() const
{
    return explanation(m_backends.keyboard->availability());
}

std::optional<QString> TextCaptureManager::focusedEditorSelection()
{
    QObject *focus = QGuiApplication::focusObject();
    if (!focus)
        return std::nullopt;
    QInputMethodQueryEvent query(Qt::ImEnabled | Qt::ImHints | Qt::ImCurrentSelection | Qt::ImReadOnly);
    QCoreApplication::sendEvent(focus, &query);
    // A read-only text view takes no input but has a selection all the same: it counts as an editor
    // here, so that its selection is read directly.
    if (!query.value(Qt::ImEnabled).toBool() && !query.value(Qt::ImReadOnly).toBool())
        return std::nullopt;
    // A password field answers like any other editor; its text must not leave it.
    const auto hints = Qt::InputMethodHints(query.value(Qt::ImHints).toInt());
    if (hints & (Qt::ImhHiddenText | Qt::ImhSensitiveData))
        return std::nullopt;
    return query.value(Qt::ImCurrentSelection).toString();
}

std::optional<QString> TextCaptureManager::captureSelectedText()
{
    if (!isProcessTrusted(false))
        return std::nullopt;

    const std::optional<FocusedWindow> focused = m_backends.windows->focusedWindow();
    if (focused && focused->isOwnWindow) {
        const std::optional<QString> own = m_backends.ownSelection();
        if (own && !own->isEmpty())
            return own;
    }

    const TerminalProfiles::CopyMethod method =
        focused ? TerminalProfiles::copyMethod(focused->instanceName, focused->className)
                : TerminalProfiles::CopyMethod::CopyShortcut;
    if (method == TerminalProfiles::CopyMethod::PrimarySelection)
        return readPlainText(Buffer::Primary);

    const std::optional<QList<ClipboardContent>> saved = saveClipboard();
    // An application that copies nothing must leave the clipboard empty, not showing the old contents.
    m_backends.clipboard->clear();
    postCopy(method == TerminalProfiles::CopyMethod::TerminalCopyShortcut);
    // The wait ends as soon as the copy has landed, where the clipboard can tell; never later than
    // kCopyWait, and with no retry: whatever the clipboard holds then is the result.
    if (!m_backends.clipboard->waitForNewOwner(kCopyWait).has_value())
        m_backends.sleep(kCopyWait);
    const std::optional<QString> text = readPlainText(Buffer::Clipboard);
    restoreClipboard(saved);
    return text;
}

std::optional<QString> TextCaptureManager::readPlainText(Buffer buffer)
{
    const std::optional<QStringList> targets = m_backends.clipboard->targets(buffer);
    if (!targets)
        return std::nullopt;
    const std::optional<QString> target = ClipboardTargets::plainTextTarget(*targets);
    if (!target)
        return std::nullopt;
    const std::optional<QByteArray> bytes = m_backends.clipboard->data(buffer, *target);
    if (!bytes)
        return std::nullopt;
    return ClipboardTargets::decodePlainText(*target, *bytes);
}

std::optional<QList<ClipboardContent>> TextCaptureManager::saveClipboard()
{
    const std::optional<QStringList> targets = m_backends.clipboard->targets(Buffer::Clipboard);
    if (!targets)
        return std::nullopt;
    // X11 holds one item at most; a clipboard nobody owns is an empty list.
    QList<ClipboardContent> items;
    ClipboardContent item;
    for (const QString &target : *targets) {
        if (!ClipboardTargets::isRestorable(target))
            continue;
        // Targets the owner offers but then does not deliver are left out of the copy.
        if (const std::optional<QByteArray> bytes = m_backends.clipboard->data(Buffer::Clipboard, target))
            item.append({target, *bytes});
    }
    if (!item.isEmpty())
        items.append(item);
    return items;
}

void TextCaptureManager::restoreClipboard(const std::optional<QList<ClipboardContent>> &saved)
{
    if (!saved)
        return;
    m_backends.clipboard->clear();
    for (const ClipboardContent &item : *saved)
        m_backends.clipboard->setContent(item);
}

void TextCaptureManager::postCopy(bool withShift)
{
    KeyboardInjector &keyboard = *m_backends.keyboard;
    // While the shortcut's own keys are held, the server sends every key event to us (the passive grab is
    // active) and a held Alt would turn the copy into Ctrl+Alt+C: let go of everything first.
    QList<KeyboardInjector::KeyEvent> events;
    for (const quint32 key : keyboard.heldKeys())
        events.append({key, false});

    events.append({kCopyModifierKey, true});
    if (withShift)
        events.append({kTerminalCopyExtraKey, true});
    events.append({kCopyKey, true});
    events.append({kCopyKey, false});
    if (withShift)
        events.append({kTerminalCopyExtraKey, false});
    events.append({kCopyModifierKey, false});
    keyboard.sendKeys(events);
}
