// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "records/UsageStats.h"

#include <QLocale>
#include <QObject>
#include <QStringList>
#include <QtQml/qqmlregistration.h>

class AuthManager;
class BalanceManager;
class UsageManager;

// The Usage section: this machine's counts for a period and, when signed in, the service's figures for
// the same period.
class UsageSettingsModel : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("The settings window provides its view models")
    Q_PROPERTY(QStringList periods READ periods CONSTANT)
    Q_PROPERTY(int periodIndex READ periodIndex WRITE setPeriodIndex NOTIFY periodChanged)
    Q_PROPERTY(qint64 characters READ characters NOTIFY localChanged)
    Q_PROPERTY(qint64 narrations READ narrations NOTIFY localChanged)
    // The counts as shown, grouped the way the service's figures are ("12,345").
    Q_PROPERTY(QString charactersText READ charactersText NOTIFY localChanged)
    Q_PROPERTY(QString narrationsText READ narrationsText NOTIFY localChanged)
    Q_PROPERTY(bool showsServer READ showsServer NOTIFY serverChanged)
    Q_PROPERTY(bool serverLoading READ serverLoading NOTIFY serverChanged)
    // Empty while loading or when the service did not answer.
    Q_PROPERTY(QString serverNarrations READ serverNarrations NOTIFY serverChanged)
    Q_PROPERTY(QString serverMinutes READ serverMinutes NOTIFY serverChanged)
    Q_PROPERTY(bool serverFailed READ serverFailed NOTIFY serverChanged)

public:
    // auth and balance none: local counts only.
    UsageSettingsModel(UsageManager &usage, AuthManager *auth, BalanceManager *balance,
                       QObject *parent = nullptr);

    // The service's name for a period: "week", "month", "all".
    static QString serverPeriod(UsagePeriod period);

    QStringList periods() const;
    int periodIndex() const { return int(allUsagePeriods().indexOf(m_period)); }
    void setPeriodIndex(int index);
    UsagePeriod period() const { return m_period; }
    qint64 characters() const;
    qint64 narrations() const;
    QString charactersText() const { return QLocale().toString(characters()); }
    QString narrationsText() const { return QLocale().toString(narrations()); }
    bool showsServer() const;
    bool serverLoading() const { return m_serverLoading; }
    QString serverNarrations() const { return m_serverNarrations; }
    QString serverMinutes() const { return m_serverMinutes; }
    bool serverFailed() const { return m_serverFailed; }

    // Asks the service again (the section calls it when it is shown).
    Q_INVOKABLE void refresh();

Q_SIGNALS:
    void periodChanged();
    void localChanged();
    void serverChanged();

private:
    UsageManager &m_usage;
    AuthManager *m_auth;
    BalanceManager *m_balance;
    UsagePeriod m_period = UsagePeriod::thisWeek;
    quint64 m_request = 0; // an answer for an older period or sign-in is dropped
    bool m_serverLoading = false;
    bool m_serverFailed = false;
    QString m_serverNarrations;
    QString m_serverMinutes;
};
