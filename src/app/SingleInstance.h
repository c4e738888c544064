// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QJsonObject>
#include <QObject>
#include <QString>

#include <functional>
#include <optional>

class QLocalServer;

// One running Quillvox per user and profile. The first instance listens on a local socket in
// $XDG_RUNTIME_DIR; later ones hand their request over (a callback URL, a playback command, a text to
// speak, a status query) and exit. One JSON object per line each way; anything else is dropped.
class SingleInstance : public QObject
{
    Q_OBJECT
public:
    // Answers one request: {"command": ..., "argument": ...} -> the reply object.
    using Handler = std::function<QJsonObject(const QString &command, const QString &argument)>;

    explicit SingleInstance(QObject *parent = nullptr);
    ~SingleInstance() override;

    // The socket of this user and profile.
    static QString socketPath();

    // Starts listening; a socket left behind by a crashed instance is replaced. False when another
    // instance already answers there (or the socket cannot be created).
    bool listen(Handler handler);

    // Sends one request to the running instance and returns its reply, or nothing when none answers.
    static std::optional<QJsonObject> send(const QString &command, const QString &argument = {},
                                           int timeoutMs = 5000);

private:
    void onNewConnection();

    QLocalServer *m_server = nullptr;
    Handler m_handler;
};
