// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QDBusConnection>
#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

// One running Quillvox per user and profile. The first instance owns the profile's name on the session
// bus and answers org.freedesktop.Application (Activate, Open, ActivateAction) and our own
// com.vantor.Quillvox.Remote (Status, Speak) at the object path derived from that name; a later
// `quillvox` hands its request over the bus and exits. Callback URLs travel in the call, never in a
// command line another user could read.
class SingleInstance : public QObject
{
    Q_OBJECT
public:
    // Answers one request: ("activate" | "open-url" | an action | "status" | "speak", argument) -> the
    // reply object, {"ok": bool, "error"?: text, "status"?: object}.
    using Handler = std::function<QJsonObject(const QString &command, const QString &argument)>;
    // Narrates `text` and answers once it was heard or failed, through `reply` ({"ok", "error"?}); a
    // refusal may answer at once.
    using SpeakAndWaitHandler =
        std::function<void(const QString &text, std::function<void(const QJsonObject &)> reply)>;

    static constexpr const char *kDefaultBusName = "com.vantor.Quillvox";
    static constexpr const char *kRemoteInterface = "com.vantor.Quillvox.Remote";

    explicit SingleInstance(QDBusConnection bus = QDBusConnection::sessionBus(), QObject *parent = nullptr);
    ~SingleInstance() override;

    // The name of the profile whose configuration folder is `configFolder`: the default folder
    // (`home`/.config) has the plain name, any other one a name of its own.
    static QString busNameFor(const QString &configFolder, const QString &home);
    // This process's profile.
    static QString busName();
    // "/com/vantor/Quillvox" for "com.vantor.Quillvox", as org.freedesktop.Application derives it.
    static QString objectPathFor(const QString &busName);
    // Keeps the launcher's activation token and startup id from this process's environment for send():
    // called before the application object, which takes them for a window of its own.
    static void keepLaunchActivation();
    // The actions ActivateAction runs.
    static const QStringList &actionNames();

    // Exports the object and takes the name. False when another instance owns it already. Without a
    // session bus nothing can be shared, and this instance simply runs.
    bool listen(Handler handler, SpeakAndWaitHandler speakAndWait = {});

    // Sends one request ("speak-wait" too) to the running instance and returns its reply; nothing when
    // none runs. One that does not answer within `timeoutMs` (speak-wait: ever) is a failed reply
    // saying so, with "notAnswering" true. Never starts one through bus activation: the caller
    // decides whether to become the instance.
    static std::optional<QJsonObject> send(const QString &command, const QString &argument = {},
                                           int timeoutMs = 5000,
                                           QDBusConnection bus = QDBusConnection::sessionBus());

Q_SIGNALS:
    // An X11 launcher's startup notification id came with Activate, Open or ActivateAction, before the
    // request runs: the window it brings forward may use it (X11Activation).
    void startupIdReceived(const QByteArray &startupId);

private:
    QDBusConnection m_bus;
    Handler m_handler;
    SpeakAndWaitHandler m_speakAndWait;
    QString m_name;
    bool m_registered = false;
};
