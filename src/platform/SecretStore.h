// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

// A store of secret items addressed by (service, account). Calls are synchronous and may be made from
// any thread.
class SecretStore
{
public:
    enum class Status {
        Ok,
        NotFound,    // no such item
        Unavailable, // no keyring answered (none running, none activatable)
        Locked,      // the keyring stayed locked (unlock prompt dismissed or timed out)
        Failed,      // any other error
    };

    struct Result
    {
        Status status = Status::Failed;
        std::optional<QByteArray> data; // set by lookup when status is Ok
        QString detail;                 // what went wrong, technical, never a secret; may be empty
    };

    virtual ~SecretStore() = default;

    // Adds an item. The store may replace an item with exactly the same attributes, but callers that
    // need "exactly one item" remove first.
    virtual Result store(const QString &service, const QString &account, const QString &label,
                         const QByteArray &secret) = 0;
    // One matching item's secret.
    virtual Result lookup(const QString &service, const QString &account) = 0;
    // Removes every matching item; NotFound when there was none.
    virtual Result remove(const QString &service, const QString &account) = 0;
};
