// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/OpenAIServer.h"

#include "core/UserDefaults.h"
#include "speech/ServerCatalog.h"
#include "speech/ServerErrorBody.h"
#include "speech/TTSRequest.h"
#include "speech/VoiceStyle.h"

#include <QHostAddress>

#include <cmath>

namespace OpenAIServer {

QUrl defaultOrigin()
{
    return QUrl(QStringLiteral("https://api.openai.com"));
}

QString defaultModel()
{
    return speechModel(SpeechBackend::OpenAI);
}

bool isLocalHost(const QString &host)
{
    const QString name = host.toLower();
    if (name == u"localhost" || name.endsWith(u".localhost") || name.endsWith(u".local"))
        return true;
    const QHostAddress address(name);
    if (address.isNull())
        return false;
    if (address.isLoopback())
        return true;
    static const QList<QPair<QHostAddress, int>> privateNetworks{
        QHostAddress::parseSubnet(QStringLiteral("10.0.0.0/8")),
        QHostAddress::parseSubnet(QStringLiteral("172.16.0.0/12")),
        QHostAddress::parseSubnet(QStringLiteral("192.168.0.0/16")),
        QHostAddress::parseSubnet(QStringLiteral("fc00::/7")),
    };
    for (const auto &[network, prefix] : privateNetworks) {
        if (address.isInSubnet(network, prefix))
            return true;
    }
    return false;
}

bool isLocalServer(const std::optional<QUrl> &chosen)
{
    return chosen && isLocalHost(chosen->host());
}

static double s_headTimeoutScale = 1.0;

int headTimeoutMs(const std::optional<QUrl> &chosen)
{
    const int ms = isLocalServer(chosen) ? kLocalHeadTimeoutMs : kSpeechHeadTimeoutMs;
    return std::max(1, int(std::lround(ms * s_headTimeoutScale)));
}

void scaleHeadTimeouts(double factor)
{
    s_headTimeoutScale = factor;
}

Verdict check(const QString &text)
{
    const QUrl url(text.trimmed(), QUrl::StrictMode);
    const QString scheme = url.scheme().toLower();
    if (!url.isValid() || url.host().isEmpty() || (scheme != u"https" && scheme != u"http") ||
        url.hasQuery() || url.hasFragment() || !url.userInfo().isEmpty()) {
        return {Verdict::Refused, {}, QStringLiteral("Enter an address such as https://api.openai.com.")};
    }
    // The speech path is appended to the origin, so it must not end in a slash.
    QUrl origin = url.adjusted(QUrl::NormalizePathSegments);
    QString path = origin.path();
    while (path.endsWith(u'/'))
        path.chop(1);
    origin.setPath(path);
    origin.setScheme(scheme);
    if (scheme == u"https")
        return {Verdict::Encrypted, origin, {}};
    if (!isLocalHost(url.host()))
        return {Verdict::Refused,
                {},
                QStringLiteral("Plain http is allowed only for this computer and private networks; use "
                               "https:// for %1.")
                    .arg(url.host())};
    return {Verdict::Unencrypted, origin, QStringLiteral("The key is sent unencrypted.")};
}

QUrl effectiveOrigin(const UserDefaults &defaults, const QUrl &deploymentOrigin,
                     bool deploymentFromEnvironment)
{
    if (deploymentFromEnvironment)
        return deploymentOrigin;
    if (const std::optional<QString> stored = defaults.string(serverKey)) {
        const Verdict verdict = check(*stored);
        if (verdict.kind != Verdict::Refused)
            return verdict.origin;
    }
    return deploymentOrigin;
}

QString effectiveModel(const UserDefaults &defaults)
{
    const QString stored = defaults.string(modelKey).value_or(QString()).trimmed();
    return stored.isEmpty() ? defaultModel() : stored;
}

std::optional<QUrl> chosenServer(const UserDefaults &defaults, bool deploymentFromEnvironment)
{
    if (deploymentFromEnvironment)
        return std::nullopt;
    const Verdict verdict = check(defaults.string(serverKey).value_or(QString()));
    if (verdict.kind == Verdict::Refused || verdict.origin == defaultOrigin())
        return std::nullopt;
    return verdict.origin;
}

static QStringList lines(const UserDefaults &defaults, const QString &key)
{
    return defaults.string(key).value_or(QString()).split(u'\n', Qt::SkipEmptyParts);
}

QStringList listedVoices(const UserDefaults &defaults)
{
    return lines(defaults, listedVoicesKey);
}

QStringList offeredVoices(const UserDefaults &defaults, bool deploymentFromEnvironment)
{
    const QStringList listed =
        chosenServer(defaults, deploymentFromEnvironment) ? listedVoices(defaults) : QStringList();
    return listed.isEmpty() ? availableVoices() : listed;
}

QStringList listedModels(const UserDefaults &defaults)
{
    return lines(defaults, listedModelsKey);
}

bool catalogIsStale(const UserDefaults &defaults, bool deploymentFromEnvironment)
{
    const std::optional<QUrl> chosen = chosenServer(defaults, deploymentFromEnvironment);
    if (!chosen)
        return false;
    return defaults.string(listedFromKey) != chosen->toString() ||
           (listedVoices(defaults).isEmpty() && listedModels(defaults).isEmpty());
}

QString chosenServerModel(const UserDefaults &defaults)
{
    const QString stored = defaults.string(modelKey).value_or(QString()).trimmed();
    if (!stored.isEmpty())
        return stored;
    return ServerCatalog::defaultModel(listedModels(defaults));
}

int maxInputChars(const UserDefaults &defaults)
{
    const quint32 stored =
        defaults.unsigned32(maxInputCharsKey).value_or(ServerErrorBody::kDefaultMaxInputChars);
    return int(std::clamp<quint32>(stored, ServerErrorBody::kMinInputChars, 1'000'000));
}

} // namespace OpenAIServer
