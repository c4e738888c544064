// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>

// Tells when the computer has woken from sleep. This base never fires on its own, so it stands in
// where no system notification is available (and tests emit `woke` themselves).
class WakeMonitor : public QObject
{
    Q_OBJECT
public:
    using QObject::QObject;

Q_SIGNALS:
    void woke();
};
