// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

// A store of secret items addressed by (service, account).
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
        QString reason;                 // for the user interface when status is not Ok/NotFound
    };

    virtual ~SecretStore() = default;
    virtual Result store(const QString &service, const QString &account, const QByteArray &secret) = 0;
    virtual Result lookup(const QString &service, const QString &account) = 0;
    virtual Result remove(const QString &service, const QString &account) = 0;
};
