// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/AppEvents.h"

AppEvents &AppEvents::shared()
{
    static AppEvents instance;
    return instance;
}
