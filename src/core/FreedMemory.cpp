// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/FreedMemory.h"

#include <QCoreApplication>
#include <QTimer>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace {

// A window's destruction posts further deletions (its items, the scene graph's nodes and textures,
// the engine's type loader) that run over the next event-loop passes; a trim before them returns
// little. One trim for releases that come together.
constexpr int kTrimDelayMs = 1000;
bool trimPending = false;

} // namespace

void returnFreedMemory()
{
#if defined(__GLIBC__)
    if (trimPending || !QCoreApplication::instance())
        return;
    trimPending = true;
    QTimer::singleShot(kTrimDelayMs, QCoreApplication::instance(), [] {
        trimPending = false;
        malloc_trim(0);
    });
#endif
}
