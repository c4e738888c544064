// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "account/AuthManager.h"
#include "account/BalanceManager.h"

class KeychainHelper;
class QPalette;

// What a dark desktop theme hands to Qt applications; the windows follow the system palette.
QPalette darkPalette();

// Runs the event loop for `ms` so that animations and layout finish before a picture is taken.
void settle(int ms);

// A signed-out account whose servers are never reached: what the windows show before anyone signs in.
struct OfflineAccount
{
    explicit OfflineAccount(KeychainHelper &keychain);
    AuthManager auth;
    BalanceManager balance;
};
