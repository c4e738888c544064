// SPDX-License-Identifier: GPL-3.0-or-later
#include "settings/UsageSettingsModel.h"

#include "account/AuthManager.h"
#include "account/BalanceManager.h"
#include "records/UsageManager.h"

#include <QLocale>

UsageSettingsModel::UsageSettingsModel(UsageManager &usage, AuthManager *auth, BalanceManager *balance,
                                       QObject *parent)
    : QObject(parent)
    , m_usage(usage)
    , m_auth(auth)
    , m_balance(balance)
{
    for (auto signal :
         {&UsageManager::allTimeChanged, &UsageManager::thisMonthChanged, &UsageManager::thisWeekChanged})
        connect(&usage, signal, this, &UsageSettingsModel::localChanged);
    if (m_auth)
        connect(m_auth, &AuthManager::stateChanged, this, &UsageSettingsModel::refresh);
}

QString UsageSettingsModel::serverPeriod(UsagePeriod period)
{
    switch (period) {
    case UsagePeriod::thisWeek:
        return QStringLiteral("week");
    case UsagePeriod::thisMonth:
        return QStringLiteral("month");
    case UsagePeriod::allTime:
        return QStringLiteral("all");
    }
    Q_UNREACHABLE();
}

QStringList UsageSettingsModel::periods() const
{
    QStringList labels;
    for (UsagePeriod period : allUsagePeriods())
        labels.append(usagePeriodLabel(period));
    return labels;
}

void UsageSettingsModel::setPeriodIndex(int index)
{
    if (index < 0 || index >= allUsagePeriods().size() || allUsagePeriods().at(index) == m_period)
        return;
    m_period = allUsagePeriods().at(index);
    Q_EMIT periodChanged();
    Q_EMIT localChanged();
    refresh();
}

qint64 UsageSettingsModel::characters() const
{
    return m_usage.stats(m_period).characters;
}

qint64 UsageSettingsModel::narrations() const
{
    return m_usage.stats(m_period).narrations;
}

bool UsageSettingsModel::showsServer() const
{
    return m_auth && m_balance && m_auth->isSignedIn();
}

void UsageSettingsModel::refresh()
{
    const quint64 request = ++m_request;
    m_serverNarrations.clear();
    m_serverMinutes.clear();
    m_serverFailed = false;
    m_serverLoading = showsServer();
    Q_EMIT serverChanged();
    if (!m_serverLoading)
        return;
    m_balance->fetchUsageStats(serverPeriod(m_period), this,
                               [this, request](const std::optional<UsageStatsResponse> &answer) {
                                   if (request != m_request)
                                       return;
                                   m_serverLoading = false;
                                   m_serverFailed = !answer;
                                   if (answer) {
                                       const QLocale locale;
                                       m_serverNarrations = locale.toString(answer->narrations);
                                       m_serverMinutes = locale.toString(answer->minutes, 'f', 1);
                                   }
                                   Q_EMIT serverChanged();
                               });
}
