// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/FreedMemory.h"

#if defined(__GLIBC__)
#include <malloc.h>
#endif

void returnFreedMemory()
{
#if defined(__GLIBC__)
    malloc_trim(0);
#endif
}
