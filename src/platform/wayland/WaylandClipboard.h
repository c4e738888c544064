// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/SystemClipboard.h"

#include <chrono>

// The Wayland selections through wl-clipboard, which speaks the compositor's data-control protocol: read
// without focus, and owned by a wl-copy that serves them in the background. wl-copy offers one type, so
// a restored clipboard holds its text (or, without text, its first type) and loses the other formats.
class WaylandClipboard final : public SystemClipboard
{
public:
    // How long wl-paste and wl-copy get; KWin sends an empty clipboard no answer at all.
    explicit WaylandClipboard(std::chrono::milliseconds timeLimit = std::chrono::milliseconds(400));

    std::optional<QStringList> targets(Buffer buffer) override;
    std::optional<QByteArray> data(Buffer buffer, const QString &target) override;
    void clear() override;
    void setContent(const ClipboardContent &content) override;

private:
    std::chrono::milliseconds m_timeLimit;
};
