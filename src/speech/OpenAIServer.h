// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <QUrl>

class UserDefaults;

// Where own-key narration is sent: any server that speaks the OpenAI speech API, chosen by the user in
// the settings window. The deployment's QUILLVOX_OPENAI_ORIGIN still wins over the user's choice.
namespace OpenAIServer {

inline const QString serverKey = QStringLiteral("openAIServer");
inline const QString modelKey = QStringLiteral("openAIModel");

QUrl defaultOrigin();
QString defaultModel();

struct Verdict
{
    enum Kind {
        Encrypted,
        // Plain http to this machine or a private network: allowed, with a warning.
        Unencrypted,
        Refused,
    };
    Kind kind = Refused;
    // Scheme, host, port and any path prefix, without a trailing slash; empty when refused.
    QUrl origin;
    // What the user is told: the refusal, or the warning for an unencrypted server.
    QString message;
};

// Judges what the user typed as a server address.
Verdict check(const QString &text);
// Loopback, private-network and ".local" hosts, where plain http does not cross the internet.
bool isLocalHost(const QString &host);

// The origin and model a narration uses now. A stored server that no longer passes check() is ignored.
QUrl effectiveOrigin(const UserDefaults &defaults, const QUrl &deploymentOrigin,
                     bool deploymentFromEnvironment);
QString effectiveModel(const UserDefaults &defaults);

} // namespace OpenAIServer
