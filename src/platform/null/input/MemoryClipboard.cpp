// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/null/input/MemoryClipboard.h"

std::optional<ClipboardContent> &MemoryClipboard::buffer(Buffer buffer)
{
    return buffer == Buffer::Clipboard ? m_clipboard : m_primary;
}

std::optional<QStringList> MemoryClipboard::targets(Buffer which)
{
    if (!m_readable)
        return std::nullopt;
    QStringList names;
    for (const auto &entry : buffer(which).value_or(ClipboardContent()))
        names.append(entry.first);
    return names;
}

std::optional<QByteArray> MemoryClipboard::data(Buffer which, const QString &target)
{
    if (!m_readable)
        return std::nullopt;
    m_requests.append({which, target});
    for (const auto &[name, bytes] : buffer(which).value_or(ClipboardContent())) {
        if (name == target)
            return bytes;
    }
    return std::nullopt;
}

void MemoryClipboard::clear()
{
    setOwnerContent(Buffer::Clipboard, std::nullopt);
}

void MemoryClipboard::setContent(const ClipboardContent &content)
{
    setOwnerContent(Buffer::Clipboard, content);
}

void MemoryClipboard::setOwnerContent(Buffer which, const std::optional<ClipboardContent> &content)
{
    buffer(which) = content;
    ++(which == Buffer::Clipboard ? m_clipboardChanges : m_primaryChanges);
}

std::optional<ClipboardContent> MemoryClipboard::content(Buffer which) const
{
    return which == Buffer::Clipboard ? m_clipboard : m_primary;
}

int MemoryClipboard::changeCount(Buffer which) const
{
    return which == Buffer::Clipboard ? m_clipboardChanges : m_primaryChanges;
}
