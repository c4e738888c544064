// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QMutex>
#include <QString>

#include <memory>
#include <optional>

class SecretStore;

// The three secret items; each item's account attribute is the case's text.
enum class KeychainKey { openAIAPIKey, accessToken, refreshToken };
QString accountName(KeychainKey key);

// Keeps the application's secrets in the user's keyring, addressed by service + account.
// Synchronous and callable from any thread; nothing here throws or logs. Never falls back to a file or
// the settings. A call fails within about 5 s when no keyring answers, but a locked keyring shows the
// desktop's unlock prompt and a call then waits up to a minute for the user.
class KeychainHelper
{
public:
    // Uses `store`, or the platform's Secret Service store when none is given.
    explicit KeychainHelper(QString service, std::unique_ptr<SecretStore> store = {});
    ~KeychainHelper();
    KeychainHelper(const KeychainHelper &) = delete;
    KeychainHelper &operator=(const KeychainHelper &) = delete;

    // Service "com.vantor.quillvox", or QUILLVOX_KEYCHAIN_SERVICE when set.
    static KeychainHelper &shared();

    QString service() const { return m_service; }

    // Stores or replaces the item (delete, then add); true when the keyring accepted it.
    bool save(const QString &value, KeychainKey key);
    // The stored text, or nothing (never "" for a missing item).
    std::optional<QString> load(KeychainKey key);
    // load() as a credential is used: without surrounding whitespace, so that a token or key stored
    // with a line end (pasted, or piped from a shell) still goes out as a valid header.
    std::optional<QString> loadSecret(KeychainKey key);
    // True when the item was removed or did not exist.
    bool remove(KeychainKey key);

    // Why the last failing call failed, in words for the user interface ("No keyring is available…").
    // Empty after a call that succeeded.
    QString lastFailureReason() const;

private:
    void setFailureReason(const QString &reason);

    QString m_service;
    std::unique_ptr<SecretStore> m_store;
    mutable QMutex m_reasonMutex;
    QString m_lastFailureReason;
};
