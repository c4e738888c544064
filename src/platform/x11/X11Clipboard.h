// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/SystemClipboard.h"

#include <memory>

class X11SelectionOwner;
class X11SelectionReader;

// CLIPBOARD and PRIMARY on X11. Reads go to the owner directly on a connection of our own; when the
// owner is this process, the content comes from where we keep it (Qt's clipboard, or what we serve
// ourselves) without a round trip that would wait for our own busy GUI thread. Writes are served by an
// owner of our own.
//
// WORKAROUND: QClipboard (Qt 6.4, xcb) cannot save, copy and restore within one turn of the event loop,
// which a capture needs. Its reader keeps the previous owner's target list until the event loop has
// handled the XFixes notice of the new owner, so it reads the new owner with the old targets; and it
// takes ownership with the time stamp of the last event it handled, which the X server ignores when
// another client has taken the selection since, so the restore fails ("Cannot set X11 selection owner").
// It also serves UTF8_STRING, STRING, TEXT and text/plain from one format, which would not give the
// saved bytes back per target.
class X11Clipboard final : public SystemClipboard
{
public:
    X11Clipboard();
    ~X11Clipboard() override;

    std::optional<QStringList> targets(Buffer buffer) override;
    std::optional<QByteArray> data(Buffer buffer, const QString &target) override;
    void clear() override;
    void setContent(const ClipboardContent &content) override;
    // Through XFixes on the reader's connection; nothing when the server lacks it.
    std::optional<bool> waitForNewOwner(std::chrono::milliseconds timeout) override;

private:
    quint32 selectionAtom(Buffer buffer);
    // Asks for XFixes notices of new CLIPBOARD owners, once; false when the server has no XFixes.
    bool watchOwners();

    std::unique_ptr<X11SelectionReader> m_reader;
    std::unique_ptr<X11SelectionOwner> m_owner;
    // An owner that once failed to answer in time is not asked again, so that one stuck application
    // costs one timeout per capture, not one per target.
    quint32 m_unresponsiveOwner = 0;
    // The response type of XFixes selection notices, once watchOwners() has set them up.
    std::optional<quint8> m_ownerNotice;
    bool m_ownerNoticeTried = false;
};
