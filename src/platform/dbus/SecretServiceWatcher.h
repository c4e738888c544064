// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>

// Tells when an item of any keyring collection is created, changed or deleted, by this process or by
// another (`quillvox --set-api-key`, a keyring manager), through the Secret Service's own signals.
// Without a Secret Service on the session bus it never fires.
class SecretServiceWatcher : public QObject
{
    Q_OBJECT
public:
    explicit SecretServiceWatcher(QObject *parent = nullptr);

Q_SIGNALS:
    void itemsChanged();

private Q_SLOTS:
    void itemSignal();
};
