// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/SecretStore.h"

#include <QMap>
#include <QMutex>
#include <QPair>

// A SecretStore in memory, for tests of the components that keep secrets. It holds one item per
// (service, account), as a Secret Service collection does, and can be told to fail.
class MemorySecretStore final : public SecretStore
{
public:
    enum class Operation { Store, Lookup, Remove };

    Result store(const QString &service, const QString &account, const QString &label,
                 const QByteArray &secret) override;
    Result lookup(const QString &service, const QString &account) override;
    Result remove(const QString &service, const QString &account) override;

    // Every later call of `operation` fails with `status` (Unavailable, Locked or Failed) and touches
    // nothing; Ok makes it work again.
    void setFailure(Operation operation, Status status);
    // The same for all three operations: setFailure(Status::Unavailable) is a machine without a keyring.
    void setFailure(Status status);

    // Direct access for test set-up and checks; never fails.
    void insert(const QString &service, const QString &account, const QByteArray &secret,
                const QString &label = {});
    std::optional<QByteArray> secret(const QString &service, const QString &account) const;
    std::optional<QString> label(const QString &service, const QString &account) const;
    int itemCount() const;

private:
    using Address = QPair<QString, QString>;
    struct Item
    {
        QByteArray secret;
        QString label;
    };

    std::optional<Result> failureFor(Operation operation) const;

    mutable QMutex m_mutex;
    QMap<Address, Item> m_items;
    QMap<Operation, Status> m_failures;
};
