// SPDX-License-Identifier: GPL-3.0-or-later
#include "account/AccountError.h"

QString AuthError::description() const
{
    switch (m_kind) {
    case networkError:
        return QStringLiteral("Network error: ") + m_detail;
    case authenticationFailed:
        return QStringLiteral("Authentication failed: ") + m_detail;
    case invalidURL:
        return QStringLiteral("Invalid authentication URL");
    case tokenRefreshFailed:
        return QStringLiteral("Failed to refresh authentication");
    case userCancelled:
        return QStringLiteral("Authentication cancelled");
    }
    Q_UNREACHABLE();
}

QString BalanceError::description() const
{
    switch (m_kind) {
    case serverError:
        return QStringLiteral("Server error (%1)").arg(m_status);
    case invalidResponse:
        return QStringLiteral("Invalid response from server");
    case unauthorized:
        return QStringLiteral("Please sign in again");
    }
    Q_UNREACHABLE();
}

QString describe(const AccountFailure &failure)
{
    return std::visit(
        [](const auto &f) -> QString {
            using F = std::decay_t<decltype(f)>;
            if constexpr (std::is_same_v<F, AuthError> || std::is_same_v<F, BalanceError>)
                return f.description();
            else if constexpr (std::is_same_v<F, PurchaseError>)
                return purchaseErrorDescription(f);
            else
                return f.message;
        },
        failure);
}
