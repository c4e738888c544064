// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Hands memory that has been freed back to the system. A released window leaves its QML engine's
// allocations free but still resident inside the allocator's heap; call this once the window is gone.
// The trim itself runs a moment later, after the deletions the window's own teardown posted.
void returnFreedMemory();
