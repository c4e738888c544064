// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/WakeMonitor.h"

// Wake notifications from systemd-logind: PrepareForSleep(false) on the system bus. Without a system
// bus or logind it simply never fires.
class LogindWakeMonitor final : public WakeMonitor
{
    Q_OBJECT
public:
    explicit LogindWakeMonitor(QObject *parent = nullptr);

private Q_SLOTS:
    void prepareForSleep(bool sleeping);
};
