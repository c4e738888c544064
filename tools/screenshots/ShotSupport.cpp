// SPDX-License-Identifier: GPL-3.0-or-later
#include "ShotSupport.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QPalette>

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

// What a dark desktop theme hands to Qt applications; the window follows the system palette.
QPalette darkPalette()
{
    QPalette p;
    const QColor window(0x2b, 0x2b, 0x2e), base(0x1f, 0x1f, 0x22), text(0xe8, 0xe8, 0xea);
    p.setColor(QPalette::Window, window);
    p.setColor(QPalette::WindowText, text);
    p.setColor(QPalette::Base, base);
    p.setColor(QPalette::AlternateBase, QColor(0x25, 0x25, 0x28));
    p.setColor(QPalette::Text, text);
    p.setColor(QPalette::PlaceholderText, QColor(0x8e, 0x8e, 0x93));
    p.setColor(QPalette::Button, QColor(0x3a, 0x3a, 0x3e));
    p.setColor(QPalette::ButtonText, text);
    p.setColor(QPalette::BrightText, Qt::white);
    p.setColor(QPalette::Highlight, QColor(0x3d, 0x7e, 0xd6));
    p.setColor(QPalette::HighlightedText, Qt::white);
    p.setColor(QPalette::Link, QColor(0x6c, 0xa8, 0xf0));
    p.setColor(QPalette::ToolTipBase, window);
    p.setColor(QPalette::ToolTipText, text);
    p.setColor(QPalette::Light, QColor(0x4a, 0x4a, 0x4f));
    p.setColor(QPalette::Midlight, QColor(0x42, 0x42, 0x46));
    p.setColor(QPalette::Mid, QColor(0x55, 0x55, 0x5a));
    p.setColor(QPalette::Dark, QColor(0x18, 0x18, 0x1a));
    p.setColor(QPalette::Shadow, Qt::black);
    for (const QPalette::ColorRole role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText})
        p.setColor(QPalette::Disabled, role, QColor(0x7a, 0x7a, 0x7f));
    return p;
}
