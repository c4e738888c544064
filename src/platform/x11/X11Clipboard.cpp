// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/x11/X11Clipboard.h"

#include "core/Logging.h"
#include "platform/x11/X11SelectionOwner.h"
#include "platform/x11/X11SelectionReader.h"
#include "platform/x11/X11Session.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QMimeData>

#include <xcb/xcb.h>
#include <xcb/xfixes.h>

#include <chrono>
#include <cstdlib>
#include <memory>

namespace {

using namespace std::chrono_literals;

// Owners answer within milliseconds; one that takes longer is treated as gone.
constexpr auto kOwnerTimeout = 500ms;

const QString kUtf8String = QStringLiteral("UTF8_STRING");
const QString kTextPlain = QStringLiteral("text/plain");

QClipboard::Mode qtMode(SystemClipboard::Buffer buffer)
{
    return buffer == SystemClipboard::Buffer::Clipboard ? QClipboard::Clipboard : QClipboard::Selection;
}

// What Qt offers for content that our own windows put on a selection: its formats, with plain text under
// the X name as well.
QStringList qtTargets(const QMimeData *mime)
{
    QStringList targets;
    for (const QString &format : mime->formats()) {
        targets.append(format);
        if (format == kTextPlain)
            targets.append(kUtf8String);
    }
    return targets;
}

} // namespace

X11Clipboard::X11Clipboard() = default;
X11Clipboard::~X11Clipboard() = default;

quint32 X11Clipboard::selectionAtom(Buffer buffer)
{
    return buffer == Buffer::Clipboard ? m_reader->connection().atom("CLIPBOARD") : quint32(XCB_ATOM_PRIMARY);
}

std::optional<QStringList> X11Clipboard::targets(Buffer buffer)
{
    if (!m_reader)
        m_reader = std::make_unique<X11SelectionReader>();
    if (!m_reader->isValid())
        return std::nullopt;
    const quint32 owner = m_reader->owner(selectionAtom(buffer));
    if (owner == XCB_WINDOW_NONE)
        return QStringList();
    if (m_owner && owner == m_owner->window()) {
        QStringList targets;
        for (const auto &entry : m_owner->content().value_or(ClipboardContent()))
            targets.append(entry.first);
        return targets;
    }
    if (X11Session::isOwnWindow(owner)) {
        const QMimeData *mime = QGuiApplication::clipboard()->mimeData(qtMode(buffer));
        return mime ? qtTargets(mime) : QStringList();
    }
    if (owner == m_unresponsiveOwner)
        return QStringList();
    bool timedOut = false;
    const std::optional<QList<quint32>> atoms =
        m_reader->targets(selectionAtom(buffer), kOwnerTimeout, &timedOut);
    if (timedOut) {
        qCInfo(lcCapture) << "the selection owner did not answer in time";
        m_unresponsiveOwner = owner;
    }
    QStringList targets;
    for (const quint32 atom : atoms.value_or(QList<quint32>())) {
        const QString name = QString::fromLatin1(m_reader->connection().atomName(atom));
        if (!name.isEmpty() && !targets.contains(name))
            targets.append(name);
    }
    return targets;
}

std::optional<QByteArray> X11Clipboard::data(Buffer buffer, const QString &target)
{
    if (!m_reader)
        m_reader = std::make_unique<X11SelectionReader>();
    if (!m_reader->isValid())
        return std::nullopt;
    const quint32 owner = m_reader->owner(selectionAtom(buffer));
    if (owner == XCB_WINDOW_NONE)
        return std::nullopt;
    if (m_owner && owner == m_owner->window()) {
        for (const auto &[name, bytes] : m_owner->content().value_or(ClipboardContent())) {
            if (name == target)
                return bytes;
        }
        return std::nullopt;
    }
    if (X11Session::isOwnWindow(owner)) {
        const QMimeData *mime = QGuiApplication::clipboard()->mimeData(qtMode(buffer));
        const QString format = target == kUtf8String ? kTextPlain : target;
        if (!mime || !mime->hasFormat(format))
            return std::nullopt;
        return mime->data(format);
    }
    if (owner == m_unresponsiveOwner)
        return std::nullopt;
    bool timedOut = false;
    const std::optional<X11SelectionReader::Converted> converted =
        m_reader->convert(selectionAtom(buffer), m_reader->connection().atom(target.toLatin1().constData()),
                          kOwnerTimeout, &timedOut);
    if (timedOut) {
        qCInfo(lcCapture) << "the selection owner did not answer in time";
        m_unresponsiveOwner = owner;
    }
    if (!converted)
        return std::nullopt;
    return converted->data;
}

void X11Clipboard::clear()
{
    if (!m_reader)
        m_reader = std::make_unique<X11SelectionReader>();
    if (!m_reader->isValid())
        return;
    X11Connection &connection = m_reader->connection();
    if (watchOwners()) {
        // Notices from before this clear say nothing about the copy that follows it.
        while (connection.nextEvent(0ms)) {
        }
    }
    // The current time always wins over the owner's, however recently it took the selection.
    xcb_set_selection_owner(connection.connection(), XCB_WINDOW_NONE, selectionAtom(Buffer::Clipboard),
                            XCB_CURRENT_TIME);
    connection.sync();
}

void X11Clipboard::setContent(const ClipboardContent &content)
{
    if (!m_reader)
        m_reader = std::make_unique<X11SelectionReader>();
    if (!m_owner)
        m_owner = std::make_unique<X11SelectionOwner>();
    if (!m_reader->isValid() || !m_owner->isValid())
        return;
    // A real time stamp rather than CurrentTime, so that requests and clears can be told apart from those
    // of an earlier owner.
    const std::optional<quint32> now =
        m_reader->connection().serverTime(X11Connection::Clock::now() + kOwnerTimeout);
    if (!now || !m_owner->own(content, *now))
        qCWarning(lcCapture) << "could not take the clipboard back to restore its contents";
}

bool X11Clipboard::watchOwners()
{
    if (m_ownerNotice || std::exchange(m_ownerNoticeTried, true))
        return m_ownerNotice.has_value();
    xcb_connection_t *c = m_reader->connection().connection();
    const xcb_query_extension_reply_t *extension = xcb_get_extension_data(c, &xcb_xfixes_id);
    if (!extension || !extension->present)
        return false;
    // The version must be asked before any other XFixes request.
    const std::unique_ptr<xcb_xfixes_query_version_reply_t, decltype(&std::free)> version(
        xcb_xfixes_query_version_reply(c, xcb_xfixes_query_version(c, XCB_XFIXES_MAJOR_VERSION, 0), nullptr),
        &std::free);
    if (!version)
        return false;
    xcb_xfixes_select_selection_input(c, m_reader->connection().window(), selectionAtom(Buffer::Clipboard),
                                      XCB_XFIXES_SELECTION_EVENT_MASK_SET_SELECTION_OWNER);
    m_ownerNotice = quint8(extension->first_event + XCB_XFIXES_SELECTION_NOTIFY);
    return true;
}

std::optional<bool> X11Clipboard::waitForNewOwner(std::chrono::milliseconds timeout)
{
    if (!m_reader || !m_reader->isValid() || !watchOwners())
        return std::nullopt;
    const quint8 notice = *m_ownerNotice;
    const quint32 clipboard = selectionAtom(Buffer::Clipboard);
    // Our own clear() is a notice too, with no owner.
    const X11Connection::Event event = m_reader->connection().waitForEvent(
        [notice, clipboard](const void *e) {
            if ((static_cast<const xcb_generic_event_t *>(e)->response_type & 0x7f) != notice)
                return false;
            const auto *n = static_cast<const xcb_xfixes_selection_notify_event_t *>(e);
            return n->selection == clipboard && n->owner != XCB_WINDOW_NONE;
        },
        X11Connection::Clock::now() + timeout);
    return event != nullptr;
}
