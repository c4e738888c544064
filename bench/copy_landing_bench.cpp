// SPDX-License-Identifier: GPL-3.0-or-later
// How long the application in front takes to answer the capture's copy: from the synthetic Ctrl+C to the
// new CLIPBOARD owner (as XFixes reports it), over many copies of a selection in mousepad, and how many
// of them land later than the capture's 0.1 s. Run inside the rig, once idle and once with the cores
// busy:
//
//     RIG_DIR=$(mktemp -d) scripts/rig.sh -- build/bench/copy_landing_bench [copies, default 200]
#include "BenchTiming.h"
#include "X11Desktop.h"

#include "platform/x11/X11Clipboard.h"
#include "platform/x11/X11KeyboardInjector.h"

#include <QDir>
#include <QFile>
#include <QGuiApplication>
#include <QTemporaryDir>

#include <linux/input-event-codes.h>

#include <cstdio>
#include <vector>

using namespace bench;
using namespace std::chrono_literals;

int main(int argc, char **argv)
{
    QGuiApplication app(argc, argv);
    const int copies = argc > 1 ? std::max(1, std::atoi(argv[1])) : 200;
    if (QGuiApplication::platformName() != u"xcb") {
        std::fprintf(stderr, "needs an X11 display: run inside scripts/rig.sh\n");
        return 1;
    }
    QTemporaryDir dir(QDir::tempPath() + QStringLiteral("/qv-copy-bench-XXXXXX"));
    const QString file = dir.filePath(QStringLiteral("text.txt"));
    const QByteArray text = "Quillvox copies the selection with a synthetic Ctrl+C and reads the clipboard.";
    {
        QFile f(file);
        if (!f.open(QIODevice::WriteOnly))
            return 1;
        f.write(text);
    }
    ChildProcess editor;
    if (openInMousepad(editor, file).isEmpty()) {
        std::fprintf(stderr, "mousepad did not show a window\n");
        return 1;
    }
    xdotool({"key", "ctrl+a"});

    X11Clipboard clipboard;
    X11KeyboardInjector keyboard;
    std::vector<double> landedMs;
    int late = 0, notLanded = 0, wrong = 0;
    for (int i = 0; i < copies; ++i) {
        clipboard.clear();
        keyboard.sendKeys({{KEY_LEFTCTRL, true}, {KEY_C, true}, {KEY_C, false}, {KEY_LEFTCTRL, false}});
        const Clock::time_point sent = Clock::now();
        const std::optional<bool> landed = clipboard.waitForNewOwner(1000ms);
        const double ms = msBetween(sent, Clock::now());
        if (!landed.has_value()) {
            std::fprintf(stderr, "the clipboard cannot report a new owner here\n");
            return 1;
        }
        if (!*landed) {
            ++notLanded;
            continue;
        }
        landedMs.push_back(ms);
        late += ms > 100 ? 1 : 0;
        if (clipboard.data(SystemClipboard::Buffer::Clipboard, QStringLiteral("UTF8_STRING")) != text)
            ++wrong;
        QThread::msleep(20);
    }
    std::sort(landedMs.begin(), landedMs.end());
    const auto at = [&](double q) {
        return landedMs.empty() ? 0.0
                                : landedMs[std::min(landedMs.size() - 1, std::size_t(q * landedMs.size()))];
    };
    std::printf("Copy landing, %d copies from mousepad: %zu landed, %d not within 1 s, %d with other text\n",
                copies, landedMs.size(), notLanded, wrong);
    std::printf("  after the keys: median %.1f ms   p90 %.1f ms   p99 %.1f ms   max %.1f ms\n", at(0.5),
                at(0.9), at(0.99), landedMs.empty() ? 0.0 : landedMs.back());
    std::printf("  later than 100 ms: %d of %d (%.1f %%), counting those that never landed\n",
                late + notLanded, copies, 100.0 * (late + notLanded) / copies);
    return 0;
}
