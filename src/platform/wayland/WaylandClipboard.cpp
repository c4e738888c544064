// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/wayland/WaylandClipboard.h"

#include "core/Logging.h"
#include "platform/wayland/WlClipboardTool.h"

namespace {

using WlClipboardTool::run;

QStringList withBuffer(SystemClipboard::Buffer buffer, QStringList arguments)
{
    if (buffer == SystemClipboard::Buffer::Primary)
        arguments.prepend(QStringLiteral("--primary"));
    return arguments;
}

} // namespace

WaylandClipboard::WaylandClipboard(std::chrono::milliseconds timeLimit)
    : m_timeLimit(timeLimit)
{}

std::optional<QStringList> WaylandClipboard::targets(Buffer buffer)
{
    const WlClipboardTool::Outcome listed =
        run(QStringLiteral("wl-paste"), withBuffer(buffer, {QStringLiteral("--list-types")}), m_timeLimit);
    if (!listed.answered)
        return std::nullopt;
    // "No selection" and exit status 1 when nobody owns it.
    if (listed.exitCode != 0)
        return QStringList();
    return QString::fromUtf8(listed.output).split(u'\n', Qt::SkipEmptyParts);
}

std::optional<QByteArray> WaylandClipboard::data(Buffer buffer, const QString &target)
{
    const WlClipboardTool::Outcome pasted = run(
        QStringLiteral("wl-paste"),
        withBuffer(buffer, {QStringLiteral("--no-newline"), QStringLiteral("--type"), target}), m_timeLimit);
    if (!pasted.answered || pasted.exitCode != 0)
        return std::nullopt;
    return pasted.output;
}

void WaylandClipboard::clear()
{
    run(QStringLiteral("wl-copy"), {QStringLiteral("--clear")}, m_timeLimit);
}

void WaylandClipboard::setContent(const ClipboardContent &content)
{
    if (content.isEmpty())
        return;
    auto chosen = content.cbegin();
    for (auto it = content.cbegin(); it != content.cend(); ++it) {
        if (it->first.startsWith(u"text/plain")) {
            chosen = it;
            break;
        }
    }
    const WlClipboardTool::Outcome copied = run(
        QStringLiteral("wl-copy"), {QStringLiteral("--type"), chosen->first}, m_timeLimit, &chosen->second);
    if (!copied.answered || copied.exitCode != 0)
        qCWarning(lcCapture) << "wl-copy did not take back the clipboard";
}
