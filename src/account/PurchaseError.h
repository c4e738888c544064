// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

// Why a purchase could not be started in the browser.
enum class PurchaseError { invalidURL, exchangeCodeFailed };

QString purchaseErrorDescription(PurchaseError error);
