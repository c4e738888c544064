// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <QStringList>
#include <QUrl>

#include <optional>

class UserDefaults;

// Where own-key narration is sent: any server that speaks the OpenAI speech API, chosen by the user in
// the settings window. The deployment's QUILLVOX_OPENAI_ORIGIN still wins over the user's choice.
namespace OpenAIServer {

inline const QString serverKey = QStringLiteral("openAIServer");
inline const QString modelKey = QStringLiteral("openAIModel");
// For a chosen server: most characters per request, and what it last listed at /v1/models and
// /v1/audio/voices (names, one a line).
inline const QString maxInputCharsKey = QStringLiteral("openAIMaxInputChars");
inline const QString listedModelsKey = QStringLiteral("openAIServerModels");
inline const QString listedVoicesKey = QStringLiteral("openAIServerVoices");
// The server that gave those lists.
inline const QString listedFromKey = QStringLiteral("openAIServerListedFrom");

// A chosen server on this computer or the local network is waited on this long for its head: CPU servers
// answer only once a long text is synthesised.
inline constexpr int kLocalHeadTimeoutMs = 300000;

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
// A chosen server on this computer or the local network: it needs no key and is waited on
// kLocalHeadTimeoutMs for its head. None (OpenAI's origin or the service) is not one.
bool isLocalServer(const std::optional<QUrl> &chosen);
int headTimeoutMs(const std::optional<QUrl> &chosen);
// Tests scale both head waits down (by `factor`) rather than wait minutes.
void scaleHeadTimeouts(double factor);

// The origin and model a narration uses now. A stored server that no longer passes check() is ignored.
QUrl effectiveOrigin(const UserDefaults &defaults, const QUrl &deploymentOrigin,
                     bool deploymentFromEnvironment);
QString effectiveModel(const UserDefaults &defaults);

// The server the user chose in the settings, when there is one that is not OpenAI's own origin and the
// deployment does not fix the origin. Only such a server gets the additions for self-hosted servers:
// any audio format, its own error messages, voices and models, no key when local, a longer head wait.
std::optional<QUrl> chosenServer(const UserDefaults &defaults, bool deploymentFromEnvironment);
// The model a narration asks a chosen server for: the one set, else the first speech model it listed,
// else "tts-1".
QString chosenServerModel(const UserDefaults &defaults);
// Most characters per request for a chosen server (4,096 unless set).
int maxInputChars(const UserDefaults &defaults);
QStringList listedVoices(const UserDefaults &defaults);
// The voices the pickers and --voice offer: a chosen server's list when it gave one, else the built-in.
QStringList offeredVoices(const UserDefaults &defaults, bool deploymentFromEnvironment);
QStringList listedModels(const UserDefaults &defaults);
// A chosen server whose lists are missing or were given by another server: they are worth asking for.
bool catalogIsStale(const UserDefaults &defaults, bool deploymentFromEnvironment);

} // namespace OpenAIServer
