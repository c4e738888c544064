// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "platform/SecretStore.h"

#include <chrono>

// Secret items in the desktop's keyring (GNOME Keyring, KWallet, KeePassXC) through the Secret Service
// on the session bus. Items carry the attributes "service" and "account" and are matched by those
// alone, so that items other tools stored under the same pair are found, replaced and removed too.
//
// No answer from a Secret Service within 5 s makes a call Unavailable. A locked keyring makes the
// service show its unlock prompt; a call waits at most `unlockTimeout` for the user, then reports Locked
// and leaves the prompt to the user.
//
// libsecret keeps one connection per process to the session bus it first found: set
// DBUS_SESSION_BUS_ADDRESS before the first call.
class LibsecretStore final : public SecretStore
{
public:
    // A minute is long enough to find and type the keyring password.
    explicit LibsecretStore(std::chrono::milliseconds unlockTimeout = std::chrono::seconds(60));

    Result store(const QString &service, const QString &account, const QString &label,
                 const QByteArray &secret) override;
    Result lookup(const QString &service, const QString &account) override;
    Result remove(const QString &service, const QString &account) override;

private:
    std::chrono::milliseconds m_unlockTimeout;
};
