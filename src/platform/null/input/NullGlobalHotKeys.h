// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/GlobalHotKeyBackend.h"

#include <QHash>
#include <QSet>

// Global hot keys without a display: grabs are bookkeeping, and tests press keys by hand. Where no
// display server offers global shortcuts, `acceptsGrabs` false makes every grab fail.
class NullGlobalHotKeys final : public GlobalHotKeyBackend
{
public:
    explicit NullGlobalHotKeys(bool acceptsGrabs = true);

    bool grab(const NativeHotKey &hotKey) override;
    void ungrab(const NativeHotKey &hotKey) override;
    void setEventHandler(EventHandler handler) override;

    // Another client holds the combination: grabbing it fails from now on.
    void setTakenElsewhere(const NativeHotKey &hotKey, bool taken = true);
    bool isGrabbed(const NativeHotKey &hotKey) const { return m_grabbed.contains(hotKey); }
    QSet<NativeHotKey> grabbed() const { return m_grabbed; }
    int grabCount(const NativeHotKey &hotKey) const { return m_grabCalls.value(hotKey); }
    int ungrabCount(const NativeHotKey &hotKey) const { return m_ungrabCalls.value(hotKey); }

    // The key events X would deliver for a grabbed combination: presses only while it is grabbed,
    // releases of a grabbed key whatever the modifiers. False when nothing was delivered.
    bool press(const NativeHotKey &hotKey, quint32 timestampMs);
    bool release(const NativeHotKey &hotKey, quint32 timestampMs);

private:
    bool m_acceptsGrabs;
    EventHandler m_handler;
    QSet<NativeHotKey> m_grabbed;
    QSet<NativeHotKey> m_takenElsewhere;
    QHash<NativeHotKey, int> m_grabCalls;
    QHash<NativeHotKey, int> m_ungrabCalls;
};
