// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/x11/X11SelectionOwner.h"

#include "core/Logging.h"

#include <xcb/xcb.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

struct FreeDeleter
{
    void operator()(void *p) const { std::free(p); }
};
template<typename T> using Reply = std::unique_ptr<T, FreeDeleter>;

constexpr quint8 kEventTypeMask = 0x7f;
// ICCCM asks for pieces well below the maximum request size; this keeps each one small for slow readers.
constexpr qsizetype kMaxPieceBytes = 256 * 1024;
// A reader that stops taking pieces of an incremental transfer is given up after this long.
constexpr auto kTransferTimeout = std::chrono::seconds(10);
constexpr auto kHandOffTimeout = std::chrono::seconds(2);

} // namespace

X11SelectionOwner::X11SelectionOwner()
{
    if (!m_connection.isValid())
        return;
    m_clipboard = m_connection.atom("CLIPBOARD");
    m_targets = m_connection.atom("TARGETS");
    m_timestamp = m_connection.atom("TIMESTAMP");
    m_multiple = m_connection.atom("MULTIPLE");
    m_incr = m_connection.atom("INCR");
    m_atomPair = m_connection.atom("ATOM_PAIR");
    m_clipboardManager = m_connection.atom("CLIPBOARD_MANAGER");
    m_saveTargets = m_connection.atom("SAVE_TARGETS");
    m_maxPiece = std::min<qsizetype>(
        qsizetype(xcb_get_maximum_request_length(m_connection.connection())) * 4 - 100, kMaxPieceBytes);
    m_wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    m_thread = std::thread([this] { run(); });
}

X11SelectionOwner::~X11SelectionOwner()
{
    if (m_thread.joinable()) {
        handToClipboardManager();
        {
            std::lock_guard lock(m_mutex);
            m_stop = true;
        }
        wake();
        m_thread.join();
    }
    if (m_wakeFd >= 0)
        ::close(m_wakeFd);
}

void X11SelectionOwner::wake()
{
    const quint64 one = 1;
    [[maybe_unused]] const auto written = ::write(m_wakeFd, &one, sizeof one);
}

bool X11SelectionOwner::own(const ClipboardContent &content, quint32 serverTime)
{
    if (!isValid())
        return false;
    auto ownership = std::make_shared<Ownership>();
    ownership->content = content;
    ownership->since = serverTime;
    for (const auto &[target, data] : content)
        ownership->entries.push_back({m_connection.atom(target.toLatin1().constData()), data});
    {
        std::lock_guard lock(m_mutex);
        m_ownership = ownership;
    }
    xcb_connection_t *c = m_connection.connection();
    xcb_set_selection_owner(c, m_connection.window(), m_clipboard, serverTime);
    Reply<xcb_get_selection_owner_reply_t> owner(
        xcb_get_selection_owner_reply(c, xcb_get_selection_owner(c, m_clipboard), nullptr));
    // Replies may have pulled events into the connection's queue, which only the thread drains.
    wake();
    if (owner && owner->owner == m_connection.window())
        return true;
    std::lock_guard lock(m_mutex);
    if (m_ownership == ownership)
        m_ownership.reset();
    return false;
}

std::optional<ClipboardContent> X11SelectionOwner::content() const
{
    std::lock_guard lock(m_mutex);
    if (!m_ownership)
        return std::nullopt;
    return m_ownership->content;
}

void X11SelectionOwner::run()
{
    xcb_connection_t *c = m_connection.connection();
    for (;;) {
        while (X11Connection::Event event{xcb_poll_for_event(c)})
            handleEvent(event.get());
        xcb_flush(c);
        dropStaleTransfers();
        {
            std::lock_guard lock(m_mutex);
            if (m_stop)
                return;
        }
        if (xcb_connection_has_error(c))
            return;
        pollfd fds[2] = {{m_connection.fileDescriptor(), POLLIN, 0}, {m_wakeFd, POLLIN, 0}};
        const int timeoutMs = m_transfers.empty() ? -1 : 1000;
        if (::poll(fds, 2, timeoutMs) > 0 && (fds[1].revents & POLLIN)) {
            quint64 count = 0;
            [[maybe_unused]] const auto read = ::read(m_wakeFd, &count, sizeof count);
        }
    }
}

void X11SelectionOwner::handleEvent(const void *event)
{
    switch (static_cast<const xcb_generic_event_t *>(event)->response_type & kEventTypeMask) {
    case XCB_SELECTION_REQUEST:
        serve(event);
        break;
    case XCB_SELECTION_CLEAR: {
        const auto *clear = static_cast<const xcb_selection_clear_event_t *>(event);
        if (clear->selection != m_clipboard)
            break;
        std::lock_guard lock(m_mutex);
        if (m_ownership && clear->time >= m_ownership->since)
            m_ownership.reset();
        break;
    }
    case XCB_PROPERTY_NOTIFY: {
        const auto *notify = static_cast<const xcb_property_notify_event_t *>(event);
        if (notify->state == XCB_PROPERTY_DELETE)
            continueTransfer(notify->window, notify->atom);
        break;
    }
    case XCB_SELECTION_NOTIFY: {
        const auto *notify = static_cast<const xcb_selection_notify_event_t *>(event);
        if (notify->selection == m_clipboardManager && notify->target == m_saveTargets) {
            std::lock_guard lock(m_mutex);
            m_savedByManager = true;
            m_saved.notify_all();
        }
        break;
    }
    default:
        break;
    }
}

void X11SelectionOwner::serve(const void *event)
{
    const auto *request = static_cast<const xcb_selection_request_event_t *>(event);
    std::shared_ptr<const Ownership> ownership;
    {
        std::lock_guard lock(m_mutex);
        ownership = m_ownership;
    }
    xcb_connection_t *c = m_connection.connection();
    // Obsolete clients name no property; ICCCM says to use the target's name then.
    const quint32 property = request->property != XCB_ATOM_NONE ? request->property : request->target;
    bool served = false;
    if (ownership && request->selection == m_clipboard &&
        (request->time == XCB_CURRENT_TIME || request->time >= ownership->since)) {
        if (request->target == m_multiple && request->property != XCB_ATOM_NONE) {
            Reply<xcb_get_property_reply_t> pairs(xcb_get_property_reply(
                c, xcb_get_property(c, 0, request->requestor, property, m_atomPair, 0, 0x1fffffff), nullptr));
            if (pairs && pairs->format == 32) {
                const int count = xcb_get_property_value_length(pairs.get()) / 4;
                std::vector<quint32> atoms(static_cast<size_t>(count));
                std::memcpy(atoms.data(), xcb_get_property_value(pairs.get()), size_t(count) * 4);
                bool refusedAny = false;
                for (int i = 0; i + 1 < count; i += 2) {
                    if (!convert(*ownership, request->requestor, atoms[size_t(i)], atoms[size_t(i + 1)])) {
                        atoms[size_t(i + 1)] = XCB_ATOM_NONE;
                        refusedAny = true;
                    }
                }
                if (refusedAny)
                    xcb_change_property(c, XCB_PROP_MODE_REPLACE, request->requestor, property, m_atomPair,
                                        32, quint32(count), atoms.data());
                served = true;
            }
        } else {
            served = convert(*ownership, request->requestor, request->target, property);
        }
    }

    xcb_selection_notify_event_t notify{};
    notify.response_type = XCB_SELECTION_NOTIFY;
    notify.time = request->time;
    notify.requestor = request->requestor;
    notify.selection = request->selection;
    notify.target = request->target;
    notify.property = served ? property : xcb_atom_t(XCB_ATOM_NONE);
    // The event goes out as the 32 bytes the protocol defines.
    char wire[32] = {};
    std::memcpy(wire, &notify, std::min(sizeof notify, sizeof wire));
    xcb_send_event(c, 0, request->requestor, XCB_EVENT_MASK_NO_EVENT, wire);
    xcb_flush(c);
}

bool X11SelectionOwner::convert(const Ownership &ownership, quint32 requestor, quint32 target,
                                quint32 property)
{
    xcb_connection_t *c = m_connection.connection();
    if (property == XCB_ATOM_NONE)
        return false;
    if (target == m_targets) {
        std::vector<quint32> atoms{m_targets, m_timestamp, m_multiple};
        for (const Entry &entry : ownership.entries)
            atoms.push_back(entry.target);
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, requestor, property, XCB_ATOM_ATOM, 32,
                            quint32(atoms.size()), atoms.data());
        return true;
    }
    if (target == m_timestamp) {
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, requestor, property, XCB_ATOM_INTEGER, 32, 1,
                            &ownership.since);
        return true;
    }
    const auto entry = std::find_if(ownership.entries.begin(), ownership.entries.end(),
                                    [target](const Entry &e) { return e.target == target; });
    if (entry == ownership.entries.end())
        return false;
    if (entry->data.size() <= m_maxPiece) {
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, requestor, property, target, 8,
                            quint32(entry->data.size()), entry->data.constData());
        return true;
    }
    // Too large for one request: announce the size, then hand out a piece each time the reader deletes
    // the property.
    const quint32 eventMask = XCB_EVENT_MASK_PROPERTY_CHANGE;
    xcb_change_window_attributes(c, requestor, XCB_CW_EVENT_MASK, &eventMask);
    const quint32 size = quint32(entry->data.size());
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, requestor, property, m_incr, 32, 1, &size);
    m_transfers.push_back({requestor, property, target, entry->data, 0, X11Connection::Clock::now()});
    return true;
}

void X11SelectionOwner::continueTransfer(quint32 requestor, quint32 property)
{
    const auto it = std::find_if(m_transfers.begin(), m_transfers.end(), [&](const Transfer &t) {
        return t.requestor == requestor && t.property == property;
    });
    if (it == m_transfers.end())
        return;
    xcb_connection_t *c = m_connection.connection();
    const qsizetype length = std::min(m_maxPiece, it->data.size() - it->offset);
    // The last piece is empty and ends the transfer.
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, requestor, property, it->type, 8, quint32(length),
                        it->data.constData() + it->offset);
    it->offset += length;
    it->lastActivity = X11Connection::Clock::now();
    if (length > 0)
        return;
    m_transfers.erase(it);
    const bool requestorStillReading =
        std::any_of(m_transfers.begin(), m_transfers.end(),
                    [requestor](const Transfer &t) { return t.requestor == requestor; });
    if (!requestorStillReading) {
        const quint32 noEvents = XCB_EVENT_MASK_NO_EVENT;
        xcb_change_window_attributes(c, requestor, XCB_CW_EVENT_MASK, &noEvents);
    }
}

void X11SelectionOwner::dropStaleTransfers()
{
    const auto now = X11Connection::Clock::now();
    std::erase_if(m_transfers, [now](const Transfer &t) { return now - t.lastActivity > kTransferTimeout; });
}

void X11SelectionOwner::handToClipboardManager()
{
    {
        std::lock_guard lock(m_mutex);
        if (!m_ownership)
            return;
        // A password manager's secret goes with us rather than into a clipboard history.
        const ClipboardContent &content = m_ownership->content;
        const bool secret = std::any_of(content.cbegin(), content.cend(), [](const auto &entry) {
            return entry.first == u"x-kde-passwordManagerHint" && entry.second == "secret";
        });
        if (secret)
            return;
    }
    xcb_connection_t *c = m_connection.connection();
    Reply<xcb_get_selection_owner_reply_t> manager(
        xcb_get_selection_owner_reply(c, xcb_get_selection_owner(c, m_clipboardManager), nullptr));
    if (!manager || manager->owner == XCB_WINDOW_NONE)
        return;
    // No property: the manager saves every target we offer, asking us for each while we wait.
    xcb_convert_selection(c, m_connection.window(), m_clipboardManager, m_saveTargets, XCB_ATOM_NONE,
                          XCB_CURRENT_TIME);
    xcb_flush(c);
    wake();
    std::unique_lock lock(m_mutex);
    if (!m_saved.wait_for(lock, kHandOffTimeout, [this] { return m_savedByManager; }))
        qCInfo(lcCapture) << "the clipboard manager did not take the clipboard in time";
}
