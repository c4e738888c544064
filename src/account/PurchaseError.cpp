// SPDX-License-Identifier: GPL-3.0-or-later
#include "account/PurchaseError.h"

QString purchaseErrorDescription(PurchaseError error)
{
    switch (error) {
    case PurchaseError::invalidURL:
        return QStringLiteral("Invalid purchase URL");
    case PurchaseError::exchangeCodeFailed:
        return QStringLiteral("Failed to generate authentication code");
    }
    return {};
}
