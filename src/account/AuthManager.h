// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "account/AccountError.h"

#include <QHash>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QUrl>

#include <functional>
#include <optional>

class Clock;
class KeychainHelper;
class QNetworkAccessManager;
class WakeMonitor;

struct SupabaseUser
{
    QString id;
    QString email;
    bool operator==(const SupabaseUser &) const = default;
};

// The user's account session: browser sign-in, the tokens that come back through the callback URL,
// verification at start, refresh with retries, re-validation after wake, and sign-out. Lives on the GUI
// thread; every asynchronous step resumes there. Its log lines go to standard output, prefixed
// "[AuthManager] ", and never contain a token.
class AuthManager : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString state READ stateName NOTIFY stateChanged)
    Q_PROPERTY(bool isSignedIn READ isSignedIn NOTIFY stateChanged)
    Q_PROPERTY(QString email READ email NOTIFY stateChanged)
    Q_PROPERTY(bool isLoading READ isLoading NOTIFY isLoadingChanged)
    Q_PROPERTY(QString currentErrorDescription READ currentErrorDescription NOTIFY currentErrorChanged)

public:
    enum class State { unknown, signedOut, signedIn };

    static constexpr int kRefreshAttempts = 3;
    static constexpr int kTokenMarginSeconds = 60;
    static constexpr int kWakeTokenMarginSeconds = 300;
    static constexpr int kSignInWatchdogSeconds = 60;

    struct Services
    {
        KeychainHelper *keychain = nullptr;
        QNetworkAccessManager *network = nullptr; // none: one of its own
        Clock *clock = nullptr;                   // none: the system clock
        WakeMonitor *wake = nullptr;              // none: wake goes unnoticed
        QUrl authOrigin;
        QUrl serviceOrigin;
        QString anonKey;
        std::function<void(const QUrl &)> openUrl; // none: the desktop's browser
        std::function<void(const QString &)> log;  // none: standard output
    };

    using TokenCallback = std::function<void(const AccountResult<QString> &)>;

    // Restores the stored session at once (asynchronously when a token is stored).
    explicit AuthManager(Services services, QObject *parent = nullptr);

    static AuthManager &shared();
    static bool hasShared();
    // Makes `manager` the shared instance (it must outlive every user of shared()).
    static void installShared(AuthManager *manager);

    State state() const { return m_state; }
    QString stateName() const;
    bool isSignedIn() const { return m_state == State::signedIn; }
    std::optional<SupabaseUser> user() const { return m_user; }
    QString email() const { return m_user ? m_user->email : QString(); }
    bool isLoading() const { return m_isLoading; }
    std::optional<AuthError> currentError() const { return m_currentError; }
    QString currentErrorDescription() const
    {
        return m_currentError ? m_currentError->description() : QString();
    }

    // Opens the provider's sign-in page in the browser (Google when `google`, else Apple).
    Q_INVOKABLE void signIn(bool google);
    void handleCallback(const QUrl &url);
    // A valid access token for a service request, refreshed first when it expires within a minute.
    // Concurrent callers share one refresh. `done` runs on the GUI thread while `context` lives (always,
    // when `context` is null).
    void getValidAccessToken(const QObject *context, TokenCallback done);
    Q_INVOKABLE void signOut();

    // The sign-in page for a provider.
    QUrl authorizeUrl(bool google) const;
    // Whether `token` (a JWT) expires before `now` plus `marginSeconds`; anything unreadable counts as
    // expired.
    static bool isTokenExpired(QStringView token, qint64 marginSeconds, const QDateTime &now);
    // The key/value pairs of a callback fragment ("a=1&b=2"), values percent-decoded.
    static QHash<QString, QString> parseFragment(const QString &fragment);

Q_SIGNALS:
    void stateChanged();
    void isLoadingChanged();
    void currentErrorChanged();

private:
    using UserCallback = std::function<void(const AccountResult<SupabaseUser> &)>;

    void restoreSession();
    void validateAfterWake();
    void fetchUser(const QString &accessToken, UserCallback done);
    void refreshSession(const QString &refreshToken, TokenCallback done);
    void refreshWithRetry(const QString &refreshToken, int attempt, TokenCallback done);
    void finishSharedRefresh(const AccountResult<QString> &result);

    void setState(State state, std::optional<SupabaseUser> user = std::nullopt);
    void setIsLoading(bool loading);
    void setCurrentError(std::optional<AuthError> error);
    void log(const QString &message) const;
    QString redirectTarget() const;

    Services m_services;
    State m_state = State::unknown;
    std::optional<SupabaseUser> m_user;
    bool m_isLoading = false;
    std::optional<AuthError> m_currentError;
    // The refresh that getValidAccessToken callers wait on, and who waits.
    bool m_refreshInFlight = false;
    struct RefreshWaiter
    {
        QPointer<const QObject> context;
        bool guarded; // false: called whatever happens
        TokenCallback done;
    };
    QList<RefreshWaiter> m_refreshWaiters;
};
