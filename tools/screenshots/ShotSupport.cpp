// SPDX-License-Identifier: GPL-3.0-or-later
#include "ShotSupport.h"

#include <QCoreApplication>
#include <QElapsedTimer>

namespace {

// Port 9 (discard) on loopback: nothing answers there.
const QUrl kNowhere(QStringLiteral("http://127.0.0.1:9"));

AuthManager::Services authServices(KeychainHelper &keychain)
{
    AuthManager::Services services;
    services.keychain = &keychain;
    services.authOrigin = kNowhere;
    services.serviceOrigin = kNowhere;
    services.openUrl = [](const QUrl &) {};
    services.log = [](const QString &) {};
    return services;
}

BalanceManager::Services balanceServices(AuthManager &auth)
{
    BalanceManager::Services services;
    services.auth = &auth;
    services.serviceOrigin = kNowhere;
    services.log = [](const QString &) {};
    return services;
}

} // namespace

void settle(int ms)
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < ms)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
}

OfflineAccount::OfflineAccount(KeychainHelper &keychain)
    : auth(authServices(keychain))
    , balance(balanceServices(auth))
{}
