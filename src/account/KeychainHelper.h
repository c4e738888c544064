// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

#include <memory>
#include <optional>

class SecretStore;

// The three secret items; each item's account attribute is the case's text.
enum class KeychainKey { openAIAPIKey, accessToken, refreshToken };
QString accountName(KeychainKey key);

// Keeps the application's secrets in the user's keyring, addressed by service + account.
// Synchronous; nothing here throws or logs. Never falls back to a file or the settings.
class KeychainHelper
{
public:
    // Uses `store`, or the platform's Secret Service store when none is given.
    explicit KeychainHelper(QString service, std::unique_ptr<SecretStore> store = {});
    ~KeychainHelper();

    // Service "com.vantor.quillvox", or QUILLVOX_KEYCHAIN_SERVICE when set.
    static KeychainHelper &shared();

    QString service() const { return m_service; }

    // Stores or replaces the item (delete, then add); true when the keyring accepted it.
    bool save(const QString &value, KeychainKey key);
    // The stored text, or nothing (never "" for a missing item).
    std::optional<QString> load(KeychainKey key);
    // True when the item was removed or did not exist.
    bool remove(KeychainKey key);

    // Why the last failing call failed, in words for the user interface ("No keyring is available…").
    // Empty after a call that succeeded.
    QString lastFailureReason() const;

private:
    QString m_service;
    std::unique_ptr<SecretStore> m_store;
};
