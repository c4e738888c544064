// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/x11/X11GlobalHotKeys.h"

#include "core/Logging.h"
#include "platform/x11/X11Session.h"

#include <QCoreApplication>

#include <xcb/xcb.h>
#include <xcb/xcb_keysyms.h>

#include <cstdlib>
#include <memory>

namespace {

constexpr quint32 kEvdevToXKeyCode = 8;
constexpr quint32 kNumLockKeysym = 0xff7f; // XK_Num_Lock
constexpr quint16 kFallbackNumLockMask = XCB_MOD_MASK_2;
constexpr quint8 kEventTypeMask = 0x7f;
constexpr int kBadAccess = 10;

struct FreeDeleter
{
    void operator()(void *p) const { std::free(p); }
};
template<typename T> using Reply = std::unique_ptr<T, FreeDeleter>;

struct KeySymbolsDeleter
{
    void operator()(xcb_key_symbols_t *symbols) const { xcb_key_symbols_free(symbols); }
};

// The modifier that Num Lock sets: whichever of the eight holds the Num_Lock key.
std::optional<quint16> findNumLockMask(xcb_connection_t *c)
{
    std::unique_ptr<xcb_key_symbols_t, KeySymbolsDeleter> symbols(xcb_key_symbols_alloc(c));
    if (!symbols)
        return std::nullopt;
    std::unique_ptr<xcb_keycode_t, FreeDeleter> numLockKeys(
        xcb_key_symbols_get_keycode(symbols.get(), kNumLockKeysym));
    if (!numLockKeys)
        return std::nullopt;
    Reply<xcb_get_modifier_mapping_reply_t> mapping(
        xcb_get_modifier_mapping_reply(c, xcb_get_modifier_mapping(c), nullptr));
    if (!mapping)
        return std::nullopt;
    const xcb_keycode_t *keys = xcb_get_modifier_mapping_keycodes(mapping.get());
    const int perModifier = mapping->keycodes_per_modifier;
    for (int modifier = 0; modifier < 8; ++modifier) {
        for (int i = 0; i < perModifier; ++i) {
            const xcb_keycode_t key = keys[modifier * perModifier + i];
            for (const xcb_keycode_t *n = numLockKeys.get(); key != 0 && *n != XCB_NO_SYMBOL; ++n) {
                if (*n == key)
                    return quint16(1u << modifier);
            }
        }
    }
    return std::nullopt;
}

} // namespace

X11GlobalHotKeys::X11GlobalHotKeys()
{
    QCoreApplication::instance()->installNativeEventFilter(this);
}

X11GlobalHotKeys::~X11GlobalHotKeys()
{
    if (QCoreApplication *app = QCoreApplication::instance())
        app->removeNativeEventFilter(this);
    const QSet<NativeHotKey> grabbed = m_grabbed;
    for (const NativeHotKey &hotKey : grabbed)
        ungrab(hotKey);
}

QList<quint16> X11GlobalHotKeys::lockVariants()
{
    xcb_connection_t *c = X11Session::connection();
    if (!m_numLockMask && c)
        m_numLockMask = findNumLockMask(c).value_or(kFallbackNumLockMask);
    const quint16 numLock = m_numLockMask.value_or(kFallbackNumLockMask);
    return {0, XCB_MOD_MASK_LOCK, numLock, quint16(XCB_MOD_MASK_LOCK | numLock)};
}

bool X11GlobalHotKeys::grab(const NativeHotKey &hotKey)
{
    xcb_connection_t *c = X11Session::connection();
    const quint32 keyCode = hotKey.keyCode + kEvdevToXKeyCode;
    if (!c || keyCode > 255)
        return false;
    const xcb_window_t root = X11Session::rootWindow();
    QList<xcb_void_cookie_t> cookies;
    for (const quint16 locks : lockVariants()) {
        cookies.append(xcb_grab_key_checked(c, 0, root, quint16(hotKey.modifiers) | locks,
                                            xcb_keycode_t(keyCode), XCB_GRAB_MODE_ASYNC,
                                            XCB_GRAB_MODE_ASYNC));
    }
    bool refused = false;
    for (const xcb_void_cookie_t cookie : cookies) {
        if (std::unique_ptr<xcb_generic_error_t, FreeDeleter> error{xcb_request_check(c, cookie)}) {
            if (error->error_code != kBadAccess)
                qCWarning(lcShortcuts) << "grabbing a key failed with X error" << error->error_code;
            refused = true;
        }
    }
    if (refused) {
        // All four or none: a combination that fires only with Num Lock off would puzzle anyone.
        ungrabVariants(hotKey);
        return false;
    }
    m_grabbed.insert(hotKey);
    return true;
}

void X11GlobalHotKeys::ungrabVariants(const NativeHotKey &hotKey)
{
    xcb_connection_t *c = X11Session::connection();
    if (!c)
        return;
    const xcb_window_t root = X11Session::rootWindow();
    // Ungrabbing releases only our own grabs, so variants another client holds are left alone.
    for (const quint16 locks : lockVariants())
        xcb_ungrab_key(c, xcb_keycode_t(hotKey.keyCode + kEvdevToXKeyCode), root,
                       quint16(hotKey.modifiers) | locks);
    xcb_flush(c);
}

void X11GlobalHotKeys::ungrab(const NativeHotKey &hotKey)
{
    if (!m_grabbed.remove(hotKey))
        return;
    ungrabVariants(hotKey);
}

void X11GlobalHotKeys::setEventHandler(EventHandler handler)
{
    m_handler = std::move(handler);
}

bool X11GlobalHotKeys::nativeEventFilter(const QByteArray &eventType, void *message, qintptr *)
{
    if (m_grabbed.isEmpty() || eventType != "xcb_generic_event_t")
        return false;
    const auto *event = static_cast<const xcb_generic_event_t *>(message);
    const quint8 type = event->response_type & kEventTypeMask;
    if (type != XCB_KEY_PRESS && type != XCB_KEY_RELEASE)
        return false;
    // Press and release events share one layout.
    const auto *key = reinterpret_cast<const xcb_key_press_event_t *>(event);
    // Grabbed events are reported to the root window; key events for our own windows are Qt's.
    if (key->event != X11Session::rootWindow() || key->detail < kEvdevToXKeyCode)
        return false;
    const NativeHotKeyEvent hotKeyEvent{
        {key->detail - kEvdevToXKeyCode, key->state & NativeHotKey::ModifierMask},
        type == XCB_KEY_PRESS,
        key->time};
    bool ours = false;
    if (hotKeyEvent.pressed) {
        ours = m_grabbed.contains(hotKeyEvent.hotKey);
    } else {
        // The release may come with other modifiers than the press, when one was let go of first.
        for (const NativeHotKey &grabbed : std::as_const(m_grabbed))
            ours = ours || grabbed.keyCode == hotKeyEvent.hotKey.keyCode;
    }
    if (!ours)
        return false;
    if (m_handler)
        m_handler(hotKeyEvent);
    return true;
}
