// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// Hands memory that has been freed back to the system. A released window leaves its QML engine's
// allocations free but still resident inside the allocator's heap; call this after such a release.
void returnFreedMemory();
