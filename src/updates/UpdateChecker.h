// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "updates/AppcastFeed.h"

#include <QNetworkReply>
#include <QObject>
#include <QPointer>
#include <QUrl>

#include <chrono>
#include <memory>
#include <optional>

class Clock;
class QNetworkAccessManager;
class UserDefaults;

// Asks the update feed whether a newer Quillvox exists. Linux installs through its package manager, so
// this only tells: by hand whenever asked, and on its own at most once a day, silently unless there is
// a version newer than the one the user chose to skip.
class UpdateChecker : public QObject
{
    Q_OBJECT
public:
    static constexpr std::chrono::hours kAutomaticInterval{24};
    static constexpr const char *kAutomaticKey = "checkForUpdatesAutomatically";
    static constexpr const char *kLastCheckKey = "lastUpdateCheck";
    static constexpr const char *kSkippedVersionKey = "skippedVersion";

    struct Services
    {
        UserDefaults *defaults = nullptr;
        QNetworkAccessManager *network = nullptr; // none: one of its own
        Clock *clock = nullptr;                   // none: the system clock
        QUrl feedUrl;
        QString currentVersion;
    };

    struct Result
    {
        enum class Outcome { UpToDate, Available, Failed };
        Outcome outcome = Outcome::Failed;
        QString currentVersion;
        std::optional<AppcastItem> item; // the newest release, when the feed had one
        QString reason;                  // why it failed

        // "You're up to date.", the new version, or "Update check failed: " and the reason.
        QString headline() const;
    };

    explicit UpdateChecker(Services services, QObject *parent = nullptr);
    ~UpdateChecker() override;

    // Asks the feed now; `finished` follows once, whatever happens.
    void checkForUpdates();
    // Asks the feed when automatic checks are on and the last check is 24 hours old or more.
    void checkAutomaticallyIfDue();
    // Arms one wake-up for the next automatic check, at the time it falls due but `soonest` from now at
    // the earliest, and again after each. Checks switched off look again a day later (the settings
    // switch them on without telling the checker). Call it again after the computer slept: the wait
    // runs on a clock that stops meanwhile.
    void scheduleAutomaticChecks(std::chrono::milliseconds soonest);
    bool isChecking() const { return m_reply != nullptr; }

    bool automaticChecks() const;
    void setAutomaticChecks(bool on);
    void skipVersion(const QString &version);

Q_SIGNALS:
    void finished(const UpdateChecker::Result &result);
    // An automatic check found a release the user has not skipped.
    void updateFound(const UpdateChecker::Result &result);

private:
    void start(bool automatic);
    void complete(bool automatic, Result result);
    Result resultFor(const QByteArray &body) const;

    Services m_services;
    QNetworkAccessManager *m_network = nullptr;
    std::unique_ptr<QNetworkAccessManager> m_ownNetwork;
    QPointer<QNetworkReply> m_reply;
    quint64 m_scheduleGeneration = 0;
};
