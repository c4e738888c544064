// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

#include <chrono>
#include <optional>
#include <utility>

// One selection's content: each target (a MIME type or an X11 target name such as UTF8_STRING) with
// its raw bytes, in the order the owner offered them.
using ClipboardContent = QList<std::pair<QString, QByteArray>>;

// The desktop's shared selections: CLIPBOARD, which copy and paste use, and PRIMARY, which holds
// whatever is currently selected. Used on the GUI thread only; every call answers synchronously.
class SystemClipboard
{
public:
    enum class Buffer { Clipboard, Primary };

    virtual ~SystemClipboard() = default;

    // The targets the current owner offers, in its order. Empty when nobody owns the buffer; nothing
    // when the buffer cannot be read at all (no display).
    virtual std::optional<QStringList> targets(Buffer buffer) = 0;
    // The bytes the owner delivers for one target; nothing when it refuses or does not answer.
    virtual std::optional<QByteArray> data(Buffer buffer, const QString &target) = 0;
    // Leaves the CLIPBOARD without an owner.
    virtual void clear() = 0;
    // Makes this process the CLIPBOARD owner, offering exactly these targets with exactly these bytes.
    virtual void setContent(const ClipboardContent &content) = 0;
    // After clear(): waits until another client takes the CLIPBOARD (a copy has landed), at most
    // `timeout`; false when none did. Nothing at once when this clipboard cannot tell.
    virtual std::optional<bool> waitForNewOwner(std::chrono::milliseconds) { return std::nullopt; }
};
