// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/null/MemorySecretStore.h"

#include <QMutexLocker>

namespace {

SecretStore::Result result(SecretStore::Status status)
{
    SecretStore::Result r;
    r.status = status;
    return r;
}

} // namespace

SecretStore::Result MemorySecretStore::store(const QString &service, const QString &account,
                                             const QString &label, const QByteArray &secret)
{
    const QMutexLocker locker(&m_mutex);
    if (const auto failure = failureFor(Operation::Store))
        return *failure;
    m_items.insert({service, account}, {secret, label});
    return result(Status::Ok);
}

SecretStore::Result MemorySecretStore::lookup(const QString &service, const QString &account)
{
    const QMutexLocker locker(&m_mutex);
    if (const auto failure = failureFor(Operation::Lookup))
        return *failure;
    const auto it = m_items.constFind({service, account});
    if (it == m_items.cend())
        return result(Status::NotFound);
    Result found = result(Status::Ok);
    found.data = it->secret;
    return found;
}

SecretStore::Result MemorySecretStore::remove(const QString &service, const QString &account)
{
    const QMutexLocker locker(&m_mutex);
    if (const auto failure = failureFor(Operation::Remove))
        return *failure;
    return result(m_items.remove({service, account}) > 0 ? Status::Ok : Status::NotFound);
}

void MemorySecretStore::setFailure(Operation operation, Status status)
{
    const QMutexLocker locker(&m_mutex);
    if (status == Status::Ok || status == Status::NotFound)
        m_failures.remove(operation);
    else
        m_failures.insert(operation, status);
}

void MemorySecretStore::setFailure(Status status)
{
    for (Operation operation : {Operation::Store, Operation::Lookup, Operation::Remove})
        setFailure(operation, status);
}

void MemorySecretStore::insert(const QString &service, const QString &account, const QByteArray &secret,
                               const QString &label)
{
    const QMutexLocker locker(&m_mutex);
    m_items.insert({service, account}, {secret, label});
}

std::optional<QByteArray> MemorySecretStore::secret(const QString &service, const QString &account) const
{
    const QMutexLocker locker(&m_mutex);
    const auto it = m_items.constFind({service, account});
    if (it == m_items.cend())
        return std::nullopt;
    return it->secret;
}

std::optional<QString> MemorySecretStore::label(const QString &service, const QString &account) const
{
    const QMutexLocker locker(&m_mutex);
    const auto it = m_items.constFind({service, account});
    if (it == m_items.cend())
        return std::nullopt;
    return it->label;
}

int MemorySecretStore::itemCount() const
{
    const QMutexLocker locker(&m_mutex);
    return static_cast<int>(m_items.size());
}

std::optional<SecretStore::Result> MemorySecretStore::failureFor(Operation operation) const
{
    const auto it = m_failures.constFind(operation);
    if (it == m_failures.cend())
        return std::nullopt;
    Result failure = result(*it);
    failure.detail = QStringLiteral("failure set by the test");
    return failure;
}
