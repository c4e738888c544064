// SPDX-License-Identifier: GPL-3.0-or-later
#include "account/KeychainHelper.h"

#include "core/DeploymentConfig.h"
#include "platform/SecretStore.h"
#include "platform/secret/LibsecretStore.h"

#include <QMutexLocker>
#include <QStringDecoder>
#include <QStringEncoder>

namespace {

using Status = SecretStore::Status;

QString labelFor(KeychainKey key)
{
    return QStringLiteral("Quillvox: ") + accountName(key);
}

// Strict in both directions: a lone surrogate must not be stored as '?', and bytes that are not UTF-8
// must not come back as replacement characters. A leading byte-order mark is part of the value.
constexpr auto kStrictUtf8 = QStringConverter::Flag::Stateless | QStringConverter::Flag::ConvertInitialBom;

std::optional<QByteArray> encodeUtf8(const QString &text)
{
    QStringEncoder encoder(QStringConverter::Utf8, kStrictUtf8);
    QByteArray bytes = encoder.encode(text);
    if (encoder.hasError())
        return std::nullopt;
    return bytes;
}

std::optional<QString> decodeUtf8(const QByteArray &bytes)
{
    QStringDecoder decoder(QStringConverter::Utf8, kStrictUtf8);
    QString text = decoder.decode(bytes);
    if (decoder.hasError())
        return std::nullopt;
    // A stored empty value is "", distinct from a missing item even for callers that test isNull().
    if (text.isNull())
        text = QStringLiteral("");
    return text;
}

QString reasonFor(const SecretStore::Result &result)
{
    switch (result.status) {
    case Status::Ok:
    case Status::NotFound:
        return {};
    case Status::Unavailable:
        return QStringLiteral(
            "No keyring is available. Quillvox keeps your API key and sign-in only in a keyring that "
            "speaks the Secret Service protocol: install and start GNOME Keyring, KWallet, or KeePassXC "
            "with its Secret Service integration turned on, then try again.");
    case Status::Locked:
        return QStringLiteral("The keyring is locked. Unlock it when your desktop asks for the keyring "
                              "password, then try again.");
    case Status::Failed:
        break;
    }
    if (result.detail.isEmpty())
        return QStringLiteral("The keyring refused the request.");
    return QStringLiteral("The keyring refused the request: ") + result.detail;
}

} // namespace

QString accountName(KeychainKey key)
{
    switch (key) {
    case KeychainKey::openAIAPIKey:
        return QStringLiteral("openai-api-key");
    case KeychainKey::accessToken:
        return QStringLiteral("access-token");
    case KeychainKey::refreshToken:
        return QStringLiteral("refresh-token");
    }
    Q_UNREACHABLE();
}

KeychainHelper::KeychainHelper(QString service, std::unique_ptr<SecretStore> store)
    : m_service(std::move(service))
    , m_store(store ? std::move(store) : std::make_unique<LibsecretStore>())
{}

KeychainHelper::~KeychainHelper() = default;

KeychainHelper &KeychainHelper::shared()
{
    static KeychainHelper instance(DeploymentConfig::current().keychainService);
    return instance;
}

bool KeychainHelper::save(const QString &value, KeychainKey key)
{
    const std::optional<QByteArray> bytes = encodeUtf8(value);
    if (!bytes) {
        setFailureReason(QStringLiteral("The value was not saved: it is not valid Unicode text."));
        return false;
    }
    const QString account = accountName(key);

    // Never update in place: the delete also clears duplicates and items other tools stored under the
    // same service and account, so that exactly one item is left. Its result does not decide the save,
    // except that a keyring that did not answer, or stayed locked, for the delete will not take the
    // add either; asking again would only make the user wait twice or show a second unlock prompt.
    const SecretStore::Result removed = m_store->remove(m_service, account);
    if (removed.status == Status::Unavailable || removed.status == Status::Locked) {
        setFailureReason(reasonFor(removed));
        return false;
    }

    const SecretStore::Result added = m_store->store(m_service, account, labelFor(key), *bytes);
    setFailureReason(reasonFor(added));
    return added.status == Status::Ok;
}

std::optional<QString> KeychainHelper::load(KeychainKey key)
{
    const SecretStore::Result found = m_store->lookup(m_service, accountName(key));
    setFailureReason(reasonFor(found));
    if (found.status != Status::Ok || !found.data)
        return std::nullopt;
    std::optional<QString> text = decodeUtf8(*found.data);
    if (!text)
        setFailureReason(QStringLiteral("The stored value is not valid UTF-8 text."));
    return text;
}

std::optional<QString> KeychainHelper::loadSecret(KeychainKey key)
{
    std::optional<QString> text = load(key);
    if (text)
        text = text->trimmed();
    return text;
}

bool KeychainHelper::remove(KeychainKey key)
{
    const SecretStore::Result removed = m_store->remove(m_service, accountName(key));
    setFailureReason(reasonFor(removed));
    return removed.status == Status::Ok || removed.status == Status::NotFound;
}

QString KeychainHelper::lastFailureReason() const
{
    const QMutexLocker locker(&m_reasonMutex);
    return m_lastFailureReason;
}

void KeychainHelper::setFailureReason(const QString &reason)
{
    const QMutexLocker locker(&m_reasonMutex);
    m_lastFailureReason = reason;
}
