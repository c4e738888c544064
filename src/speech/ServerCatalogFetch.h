// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>
#include <QString>
#include <QUrl>

#include <optional>

class QNetworkAccessManager;
class UserDefaults;

// Asks a speech server the user chose which models and voices it has (GET /v1/models and
// GET /v1/audio/voices) and keeps the answers in the settings, where the pickers, the command line and
// the default model read them. A server that does not answer lists nothing; so does OpenAI's origin,
// which brings back the built-in voices.
class ServerCatalogFetch : public QObject
{
    Q_OBJECT
public:
    ServerCatalogFetch(QNetworkAccessManager *network, UserDefaults &defaults, QObject *parent = nullptr);

    // Forgets the lists at once when there is no chosen server; otherwise asks it (with the key, when
    // there is one) and stores each list as it comes. A newer refresh makes older answers stale.
    void refresh(const std::optional<QUrl> &chosenServer, const QString &key);

Q_SIGNALS:
    void listsChanged();

private:
    void fetch(const QUrl &origin, const QString &path, const QString &key, const QString &settingsKey);

    QNetworkAccessManager *m_network;
    UserDefaults &m_defaults;
    quint64 m_generation = 0;
};
