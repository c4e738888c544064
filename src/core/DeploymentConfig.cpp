// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/DeploymentConfig.h"

#include "core/BuiltInDeployment.h"
#include "core/Logging.h"

#include <algorithm>

namespace {

// Paths are appended to origins; a trailing slash would double them.
QUrl withoutTrailingSlash(QUrl url)
{
    QString path = url.path();
    while (path.endsWith(u'/'))
        path.chop(1);
    url.setPath(path);
    return url;
}

QUrl originFrom(const QProcessEnvironment &env, const QString &name, const QString &fallback)
{
    const QString value = env.value(name);
    if (value.isEmpty())
        return withoutTrailingSlash(QUrl(fallback));
    QUrl url(value, QUrl::StrictMode);
    if (!url.isValid() || url.scheme().isEmpty() || url.host().isEmpty()) {
        qCWarning(lcCore) << "ignoring" << name << "(not an absolute URL)";
        return withoutTrailingSlash(QUrl(fallback));
    }
    return withoutTrailingSlash(url);
}

QString refusal(const QString &name, const QUrl &origin)
{
    return QStringLiteral("%1 is %2, but sign-in tokens are only sent over https:// (plain http only to "
                          "this computer: localhost, 127.0.0.1 or ::1).")
        .arg(name, origin.toString());
}

} // namespace

bool DeploymentConfig::isLoopbackHost(const QString &host)
{
    const QString name = host.toLower();
    if (name == u"localhost" || name == u"::1")
        return true;
    const QStringList octets = name.split(u'.');
    if (octets.size() != 4 || octets.first() != u"127")
        return false;
    return std::all_of(octets.begin(), octets.end(), [](const QString &octet) {
        bool ok = false;
        const uint value = octet.toUInt(&ok);
        return ok && value <= 255 && !octet.isEmpty() && octet.size() <= 3;
    });
}

bool DeploymentConfig::carriesTokensSafely(const QUrl &origin)
{
    const QString scheme = origin.scheme().toLower();
    return scheme == u"https" || (scheme == u"http" && isLoopbackHost(origin.host()));
}

DeploymentConfig DeploymentConfig::fromEnvironment(const QProcessEnvironment &env)
{
    DeploymentConfig c;
    c.serviceOrigin = originFrom(env, QStringLiteral("QUILLVOX_SERVICE_ORIGIN"),
                                 QString::fromUtf8(builtInDeployment::serviceOrigin));
    c.authOrigin = originFrom(env, QStringLiteral("QUILLVOX_AUTH_ORIGIN"),
                              QString::fromUtf8(builtInDeployment::authOrigin));
    if (!carriesTokensSafely(c.serviceOrigin))
        c.refusals << refusal(QStringLiteral("QUILLVOX_SERVICE_ORIGIN"), c.serviceOrigin);
    if (!carriesTokensSafely(c.authOrigin))
        c.refusals << refusal(QStringLiteral("QUILLVOX_AUTH_ORIGIN"), c.authOrigin);
    c.authAnonKey = env.value(QStringLiteral("QUILLVOX_AUTH_ANON_KEY"));
    if (c.authAnonKey.isEmpty())
        c.authAnonKey = QString::fromUtf8(builtInDeployment::authAnonKey);
    c.openAIOriginFromEnvironment = !env.value(QStringLiteral("QUILLVOX_OPENAI_ORIGIN")).isEmpty();
    c.openAIOrigin =
        originFrom(env, QStringLiteral("QUILLVOX_OPENAI_ORIGIN"), QStringLiteral("https://api.openai.com"));
    c.appcastUrl = originFrom(env, QStringLiteral("QUILLVOX_APPCAST_URL"),
                              QString::fromUtf8(builtInDeployment::appcastUrl));
    const QString output = env.value(QStringLiteral("QUILLVOX_AUDIO_OUTPUT"));
    if (output == u"null")
        c.audioOutput = AudioOutput::Null;
    else if (!output.isEmpty() && output != u"pulse")
        qCWarning(lcCore) << "unknown QUILLVOX_AUDIO_OUTPUT" << output << "- using pulse";
    c.keychainService = env.value(QStringLiteral("QUILLVOX_KEYCHAIN_SERVICE"));
    if (c.keychainService.isEmpty())
        c.keychainService = QStringLiteral("com.vantor.quillvox");
    return c;
}

const DeploymentConfig &DeploymentConfig::current()
{
    static const DeploymentConfig config = fromEnvironment();
    return config;
}
