// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/ServerCatalogFetch.h"

#include "core/UserDefaults.h"
#include "speech/OpenAIServer.h"
#include "speech/ServerCatalog.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>

namespace {
constexpr int kListTimeoutMs = 10000;
constexpr qint64 kMaxListBytes = 1024 * 1024;
} // namespace

ServerCatalogFetch::ServerCatalogFetch(QNetworkAccessManager *network, UserDefaults &defaults,
                                       QObject *parent)
    : QObject(parent)
    , m_network(network)
    , m_defaults(defaults)
{}

void ServerCatalogFetch::refresh(const std::optional<QUrl> &chosenServer, const QString &key)
{
    ++m_generation;
    if (!chosenServer) {
        const bool had = m_defaults.contains(OpenAIServer::listedModelsKey) ||
                         m_defaults.contains(OpenAIServer::listedVoicesKey);
        m_defaults.remove(OpenAIServer::listedModelsKey);
        m_defaults.remove(OpenAIServer::listedVoicesKey);
        m_defaults.remove(OpenAIServer::listedFromKey);
        if (had)
            Q_EMIT listsChanged();
        return;
    }
    fetch(*chosenServer, QStringLiteral("/v1/models"), key, OpenAIServer::listedModelsKey);
    fetch(*chosenServer, QStringLiteral("/v1/audio/voices"), key, OpenAIServer::listedVoicesKey);
}

void ServerCatalogFetch::fetch(const QUrl &origin, const QString &path, const QString &key,
                               const QString &settingsKey)
{
    QUrl url = origin;
    url.setPath(origin.path() + path);
    QNetworkRequest request(url);
    if (!key.isEmpty())
        request.setRawHeader("Authorization", "Bearer " + key.toUtf8());
    request.setTransferTimeout(kListTimeoutMs);
    QNetworkReply *reply = m_network->get(request);
    connect(reply, &QNetworkReply::finished, this,
            [this, reply, origin, settingsKey, generation = m_generation] {
                reply->deleteLater();
                if (generation != m_generation)
                    return;
                const bool ok = reply->error() == QNetworkReply::NoError &&
                                reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() == 200;
                if (ok)
                    m_defaults.setString(OpenAIServer::listedFromKey, origin.toString());
                const QByteArray json = ok ? reply->read(kMaxListBytes) : QByteArray();
                const QStringList names = settingsKey == OpenAIServer::listedVoicesKey
                                              ? ServerCatalog::voices(json)
                                              : ServerCatalog::models(json);
                const QString joined = names.join(u'\n');
                if (joined == m_defaults.string(settingsKey).value_or(QString()))
                    return;
                if (names.isEmpty())
                    m_defaults.remove(settingsKey);
                else
                    m_defaults.setString(settingsKey, joined);
                Q_EMIT listsChanged();
            });
}
