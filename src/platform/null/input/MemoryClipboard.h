// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/SystemClipboard.h"

#include <QSet>

#include <optional>

// CLIPBOARD and PRIMARY held in memory. A buffer without content has no owner.
class MemoryClipboard final : public SystemClipboard
{
public:
    std::optional<QStringList> targets(Buffer buffer) override;
    std::optional<QByteArray> data(Buffer buffer, const QString &target) override;
    void clear() override;
    void setContent(const ClipboardContent &content) override;

    // Another application takes the buffer (nothing: it lets go of it).
    void setOwnerContent(Buffer buffer, const std::optional<ClipboardContent> &content);
    std::optional<ClipboardContent> content(Buffer buffer) const;
    // Without a display nothing can be read at all.
    void setReadable(bool readable) { m_readable = readable; }
    // Every clear and every new owner counts as a change.
    int changeCount(Buffer buffer) const;
    // Targets whose data was asked for, in order.
    const QList<std::pair<Buffer, QString>> &dataRequests() const { return m_requests; }

private:
    std::optional<ClipboardContent> &buffer(Buffer buffer);

    std::optional<ClipboardContent> m_clipboard;
    std::optional<ClipboardContent> m_primary;
    int m_clipboardChanges = 0;
    int m_primaryChanges = 0;
    bool m_readable = true;
    QList<std::pair<Buffer, QString>> m_requests;
};
