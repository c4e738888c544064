// SPDX-License-Identifier: GPL-3.0-or-later
#include "shortcuts/HotKeyCenter.h"

#include "core/Logging.h"
#include "shortcuts/KeyTable.h"

HotKeyCenter::HotKeyCenter(std::unique_ptr<GlobalHotKeyBackend> backend)
    : m_backend(std::move(backend))
{
    m_backend->setEventHandler([this](const NativeHotKeyEvent &event) { handleEvent(event); });
}

HotKeyCenter::~HotKeyCenter()
{
    m_backend->setEventHandler({});
    // Registrations that outlive the center must not reach back into it.
    Q_ASSERT(m_registrations.isEmpty());
}

std::unique_ptr<HotKeyRegistration> HotKeyCenter::registerHotKey(quint32 virtualKeyCode,
                                                                 quint64 modifierFlags, int rank)
{
    std::optional<NativeHotKey> native;
    if (const auto keyCode = KeyTable::evdevCode(virtualKeyCode))
        native = NativeHotKey{*keyCode, KeyTable::xModifiers(modifierFlags)};

    std::unique_ptr<HotKeyRegistration> registration(
        new HotKeyRegistration(this, virtualKeyCode, modifierFlags, rank, native));
    m_registrations.append(registration.get());
    if (!native) {
        qCInfo(lcShortcuts) << "key" << virtualKeyCode << "has no key code on this system; not registered";
        return registration;
    }
    Grab &grab = m_grabs[*native];
    if (grab.registrations++ == 0) {
        grab.grabbed = m_backend->grab(*native);
        if (!grab.grabbed)
            qCDebug(lcShortcuts) << "grab refused for key" << virtualKeyCode << "with modifiers" << Qt::hex
                                 << modifierFlags;
    }
    return registration;
}

void HotKeyCenter::unregister(HotKeyRegistration *registration)
{
    m_registrations.removeOne(registration);
    if (!registration->m_native)
        return;
    const auto it = m_grabs.find(*registration->m_native);
    Q_ASSERT(it != m_grabs.end());
    if (--it->registrations > 0)
        return;
    if (it->grabbed)
        m_backend->ungrab(it.key());
    m_grabs.erase(it);
}

const HotKeyRegistration *HotKeyCenter::owner(const NativeHotKey &hotKey) const
{
    const HotKeyRegistration *best = nullptr;
    for (const HotKeyRegistration *r : m_registrations) {
        if (r->m_native == hotKey && (!best || r->m_rank < best->m_rank))
            best = r;
    }
    return best;
}

bool HotKeyCenter::isRegistered(const HotKeyRegistration *registration) const
{
    if (!registration->m_native)
        return false;
    const auto it = m_grabs.constFind(*registration->m_native);
    return it != m_grabs.cend() && it->grabbed && owner(*registration->m_native) == registration;
}

bool HotKeyCenter::isRefusedBySystem(const HotKeyRegistration *registration) const
{
    if (!registration->m_native)
        return false;
    const auto it = m_grabs.constFind(*registration->m_native);
    return it != m_grabs.cend() && !it->grabbed;
}

void HotKeyCenter::handleEvent(const NativeHotKeyEvent &event)
{
    // Held state is per physical key: the user may let go of a modifier before the key itself, so the
    // release can arrive with other modifiers than the press.
    KeyState &key = m_keys[event.hotKey.keyCode];
    if (!event.pressed) {
        key.held = false;
        key.lastReleaseMs = event.timestampMs;
        return;
    }
    // X repeats a held key either as further presses (detectable auto-repeat) or as release-press pairs
    // that share one time stamp.
    const bool repeat = key.held || key.lastReleaseMs == event.timestampMs;
    key.held = true;
    if (repeat)
        return;

    const auto grab = m_grabs.constFind(event.hotKey);
    if (grab == m_grabs.cend() || !grab->grabbed)
        return;
    const HotKeyRegistration *registration = owner(event.hotKey);
    if (!registration || !registration->m_keyDownHandler)
        return;
    // The handler may replace registrations, this one included.
    const std::function<void()> handler = registration->m_keyDownHandler;
    handler();
}

// --- HotKeyRegistration ------------------------------------------------------------------------------

HotKeyRegistration::HotKeyRegistration(HotKeyCenter *center, quint32 key, quint64 modifiers, int rank,
                                       std::optional<NativeHotKey> nativeHotKey)
    : m_center(center)
    , m_key(key)
    , m_modifiers(modifiers)
    , m_rank(rank)
    , m_native(nativeHotKey)
{}

HotKeyRegistration::~HotKeyRegistration()
{
    m_center->unregister(this);
}

bool HotKeyRegistration::isRegistered() const
{
    return m_center->isRegistered(this);
}

bool HotKeyRegistration::isRefusedBySystem() const
{
    return m_center->isRefusedBySystem(this);
}
