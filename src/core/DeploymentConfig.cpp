// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/DeploymentConfig.h"

#include "core/Logging.h"

namespace {

QUrl originFrom(const QProcessEnvironment &env, const QString &name, const QString &fallback)
{
    const QString value = env.value(name);
    if (value.isEmpty())
        return QUrl(fallback);
    QUrl url(value, QUrl::StrictMode);
    if (!url.isValid() || url.scheme().isEmpty() || url.host().isEmpty()) {
        qCWarning(lcCore) << "ignoring" << name << "(not an absolute URL)";
        return QUrl(fallback);
    }
    // Paths are appended to origins; a trailing slash would double them.
    QString path = url.path();
    while (path.endsWith(u'/'))
        path.chop(1);
    url.setPath(path);
    return url;
}

} // namespace

DeploymentConfig DeploymentConfig::fromEnvironment(const QProcessEnvironment &env)
{
    DeploymentConfig c;
    c.serviceOrigin =
        originFrom(env, QStringLiteral("QUILLVOX_SERVICE_ORIGIN"), QStringLiteral("https://quillvox.app"));
    c.authOrigin =
        originFrom(env, QStringLiteral("QUILLVOX_AUTH_ORIGIN"), QStringLiteral("https://auth.quillvox.app"));
    c.authAnonKey = env.value(QStringLiteral("QUILLVOX_AUTH_ANON_KEY"));
    c.openAIOriginFromEnvironment = !env.value(QStringLiteral("QUILLVOX_OPENAI_ORIGIN")).isEmpty();
    c.openAIOrigin =
        originFrom(env, QStringLiteral("QUILLVOX_OPENAI_ORIGIN"), QStringLiteral("https://api.openai.com"));
    c.appcastUrl = originFrom(env, QStringLiteral("QUILLVOX_APPCAST_URL"),
                              QStringLiteral("https://quillvox.app/appcast.xml"));
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
