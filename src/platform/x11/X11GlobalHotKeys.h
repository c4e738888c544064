// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/GlobalHotKeyBackend.h"

#include <QAbstractNativeEventFilter>
#include <QSet>

// Global hot keys as passive key grabs on the root window, through Qt's connection. Each combination is
// grabbed four times, with and without Num Lock and Caps Lock, since X matches the modifier state
// exactly. Grabs are checked requests: a combination another client holds fails with BadAccess, which X
// reports asynchronously otherwise. One event filter, installed for the backend's lifetime, picks the
// grabbed key events out of Qt's event stream on the GUI thread.
class X11GlobalHotKeys final : public GlobalHotKeyBackend, public QAbstractNativeEventFilter
{
public:
    X11GlobalHotKeys();
    ~X11GlobalHotKeys() override;
    X11GlobalHotKeys(const X11GlobalHotKeys &) = delete;
    X11GlobalHotKeys &operator=(const X11GlobalHotKeys &) = delete;

    bool grab(const NativeHotKey &hotKey) override;
    void ungrab(const NativeHotKey &hotKey) override;
    void setEventHandler(EventHandler handler) override;

    bool nativeEventFilter(const QByteArray &eventType, void *message, qintptr *result) override;

private:
    QList<quint16> lockVariants();
    void ungrabVariants(const NativeHotKey &hotKey);

    EventHandler m_handler;
    QSet<NativeHotKey> m_grabbed;
    std::optional<quint16> m_numLockMask;
};
