// SPDX-License-Identifier: GPL-3.0-or-later
#include "updates/UpdateChecker.h"

#include "core/AppEvents.h"
#include "core/Clock.h"
#include "core/UserDefaults.h"

#include <QHostAddress>
#include <QNetworkAccessManager>
#include <QNetworkReply>

namespace {

bool isLoopback(const QUrl &url)
{
    const QHostAddress address(url.host());
    return url.host() == u"localhost" || (!address.isNull() && address.isLoopback());
}

QString key(const char *name)
{
    return QString::fromLatin1(name);
}

} // namespace

QString UpdateChecker::Result::headline() const
{
    switch (outcome) {
    case Outcome::UpToDate:
        return QStringLiteral("You're up to date.");
    case Outcome::Available:
        return QStringLiteral("Quillvox %1 is available.").arg(item->displayVersion());
    case Outcome::Failed:
        break;
    }
    return QStringLiteral("Update check failed: ") + reason;
}

UpdateChecker::UpdateChecker(Services services, QObject *parent)
    : QObject(parent)
    , m_services(std::move(services))
{
    m_network = m_services.network;
    if (!m_network) {
        m_ownNetwork = std::make_unique<QNetworkAccessManager>();
        m_network = m_ownNetwork.get();
    }
}

UpdateChecker::~UpdateChecker()
{
    if (m_reply)
        m_reply->abort();
}

bool UpdateChecker::automaticChecks() const
{
    return m_services.defaults->boolean(key(kAutomaticKey)).value_or(true);
}

void UpdateChecker::setAutomaticChecks(bool on)
{
    m_services.defaults->setBoolean(key(kAutomaticKey), on);
}

void UpdateChecker::skipVersion(const QString &version)
{
    m_services.defaults->setString(key(kSkippedVersionKey), version);
    Q_EMIT AppEvents::shared().skippedVersionChanged();
}

void UpdateChecker::checkForUpdates()
{
    start(false);
}

void UpdateChecker::checkAutomaticallyIfDue()
{
    if (!automaticChecks() || isChecking())
        return;
    const QDateTime now = (m_services.clock ? *m_services.clock : Clock::system()).now();
    const std::optional<QDateTime> last = m_services.defaults->date(key(kLastCheckKey));
    // A last check in the future (a clock set back) counts as due, or checks would stop for good.
    if (last && *last <= now && last->secsTo(now) < std::chrono::seconds(kAutomaticInterval).count())
        return;
    m_services.defaults->setDate(key(kLastCheckKey), now);
    start(true);
}

void UpdateChecker::scheduleAutomaticChecks(std::chrono::milliseconds soonest)
{
    using namespace std::chrono;
    Clock &clock = m_services.clock ? *m_services.clock : Clock::system();
    milliseconds wait = kAutomaticInterval;
    if (automaticChecks()) {
        const QDateTime now = clock.now();
        const std::optional<QDateTime> last = m_services.defaults->date(key(kLastCheckKey));
        wait = last && *last <= now ? wait - milliseconds(last->msecsTo(now)) : 0ms;
    }
    // A wait already armed stays armed, but finds itself replaced when it ends.
    const quint64 generation = ++m_scheduleGeneration;
    clock.callAfter(std::max(wait, soonest), this, [this, generation, soonest] {
        if (generation != m_scheduleGeneration)
            return;
        checkAutomaticallyIfDue();
        scheduleAutomaticChecks(soonest);
    });
}

void UpdateChecker::start(bool automatic)
{
    const QUrl url = m_services.feedUrl;
    if (!url.isValid() || (url.scheme() != u"https" && !(url.scheme() == u"http" && isLoopback(url)))) {
        Result result;
        result.reason = QStringLiteral("the update feed must be an https address");
        complete(automatic, std::move(result));
        return;
    }
    if (m_reply)
        m_reply->abort();
    QNetworkRequest request(url);
    request.setTransferTimeout(60000);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    QNetworkReply *reply = m_network->get(request);
    m_reply = reply;
    const auto tooLarge = [reply] {
        const QVariant length = reply->header(QNetworkRequest::ContentLengthHeader);
        if ((length.isValid() && length.toLongLong() > Appcast::kMaxBodyBytes) ||
            reply->bytesAvailable() > Appcast::kMaxBodyBytes) {
            reply->setProperty("tooLarge", true);
            reply->abort();
        }
    };
    connect(reply, &QNetworkReply::metaDataChanged, this, tooLarge);
    connect(reply, &QNetworkReply::readyRead, this, tooLarge);
    connect(reply, &QNetworkReply::finished, this, [this, reply, automatic] {
        reply->deleteLater();
        if (m_reply == reply)
            m_reply = nullptr;
        Result result;
        const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        if (reply->property("tooLarge").toBool())
            result.reason = QStringLiteral("the feed is larger than 1 MB");
        else if (reply->error() == QNetworkReply::OperationCanceledError)
            return; // replaced by a newer check
        else if (status >= 400)
            result.reason = QStringLiteral("the server answered %1").arg(status);
        else if (reply->error() != QNetworkReply::NoError)
            result.reason = reply->errorString();
        else
            result = resultFor(reply->readAll());
        complete(automatic, std::move(result));
    });
}

UpdateChecker::Result UpdateChecker::resultFor(const QByteArray &body) const
{
    Result result;
    result.currentVersion = m_services.currentVersion;
    auto parsed = Appcast::parse(body);
    if (const QString *error = std::get_if<QString>(&parsed)) {
        result.reason = *error;
        return result;
    }
    result.item = Appcast::newest(std::get<QList<AppcastItem>>(parsed));
    if (!result.item) {
        result.reason = QStringLiteral("the feed lists no release");
        return result;
    }
    result.outcome = Appcast::compareVersions(result.item->version, m_services.currentVersion) > 0
                         ? Result::Outcome::Available
                         : Result::Outcome::UpToDate;
    return result;
}

void UpdateChecker::complete(bool automatic, Result result)
{
    result.currentVersion = m_services.currentVersion;
    if (automatic) {
        const QString skipped = m_services.defaults->string(key(kSkippedVersionKey)).value_or(QString());
        if (result.outcome == Result::Outcome::Available &&
            (skipped.isEmpty() || Appcast::compareVersions(result.item->version, skipped) > 0))
            Q_EMIT updateFound(result);
        return;
    }
    Q_EMIT finished(result);
}
