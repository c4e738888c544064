// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/SingleInstance.h"

#include "core/Logging.h"

#include <QCryptographicHash>
#include <QDBusAbstractAdaptor>
#include <QDBusConnectionInterface>
#include <QDBusContext>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QDir>
#include <QGuiApplication>
#include <QJsonDocument>
#include <QStandardPaths>

#include <limits>

namespace {

const QString kApplicationInterface = QStringLiteral("org.freedesktop.Application");
const QString kFailed = QStringLiteral("com.vantor.Quillvox.Error.Failed");

// The launcher's leave to bring a window to the front, handed on by a second start: Wayland's
// xdg-activation token, or the X11 startup notification id.
QVariantMap &launchActivation()
{
    static QVariantMap data;
    return data;
}

QVariantMap ownPlatformData()
{
    QVariantMap data = launchActivation();
    if (const QString token = qEnvironmentVariable("XDG_ACTIVATION_TOKEN"); !token.isEmpty())
        data.insert(QStringLiteral("activation-token"), token);
    if (const QString id = qEnvironmentVariable("DESKTOP_STARTUP_ID"); !id.isEmpty())
        data.insert(QStringLiteral("desktop-startup-id"), id);
    return data;
}

// The window this request brings forward uses the caller's leave to do so. Qt's Wayland window takes
// XDG_ACTIVATION_TOKEN for its next activation (and clears it); launchers send the token under either
// name. Elsewhere (X11) the startup id goes to whoever shows the window. Nothing is kept in the
// environment otherwise: a variable left set would pass to programs started later.
void takeActivation(SingleInstance &instance, const QVariantMap &platformData)
{
    QString token = platformData.value(QStringLiteral("activation-token")).toString();
    const QString startupId = platformData.value(QStringLiteral("desktop-startup-id")).toString();
    if (QGuiApplication::platformName() == u"wayland") {
        if (token.isEmpty())
            token = startupId;
        if (!token.isEmpty())
            qputenv("XDG_ACTIVATION_TOKEN", token.toUtf8());
    } else if (!startupId.isEmpty()) {
        Q_EMIT instance.startupIdReceived(startupId.toUtf8());
    }
}

// Runs one request and turns a refusal into a D-Bus error for the caller.
QJsonObject answer(const SingleInstance::Handler &handler, QDBusContext &context, const QString &command,
                   const QString &argument)
{
    const QJsonObject reply = handler(command, argument);
    if (!reply.value(QStringLiteral("ok")).toBool())
        context.sendErrorReply(kFailed, reply.value(QStringLiteral("error")).toString());
    return reply;
}

} // namespace

// The exported object. Qt keeps the calling context of an adaptor's call on the object it adapts.
class InstanceObject : public QObject, public QDBusContext
{
    Q_OBJECT
public:
    using QObject::QObject;
};

class ApplicationAdaptor : public QDBusAbstractAdaptor
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Application")
public:
    ApplicationAdaptor(InstanceObject *object, SingleInstance &instance,
                       const SingleInstance::Handler &handler)
        : QDBusAbstractAdaptor(object)
        , m_context(*object)
        , m_instance(instance)
        , m_handler(handler)
    {}

public Q_SLOTS:
    void Activate(const QVariantMap &platformData)
    {
        takeActivation(m_instance, platformData);
        answer(m_handler, m_context, QStringLiteral("activate"), {});
    }

    void Open(const QStringList &uris, const QVariantMap &platformData)
    {
        takeActivation(m_instance, platformData);
        for (const QString &uri : uris)
            answer(m_handler, m_context, QStringLiteral("open-url"), uri);
    }

    void ActivateAction(const QString &actionName, const QVariantList &parameter,
                        const QVariantMap &platformData)
    {
        Q_UNUSED(parameter)
        takeActivation(m_instance, platformData);
        if (!SingleInstance::actionNames().contains(actionName)) {
            m_context.sendErrorReply(QDBusError::InvalidArgs,
                                     QStringLiteral("No action \"%1\".").arg(actionName));
            return;
        }
        answer(m_handler, m_context, actionName, {});
    }

private:
    QDBusContext &m_context;
    SingleInstance &m_instance;
    const SingleInstance::Handler &m_handler;
};

class RemoteAdaptor : public QDBusAbstractAdaptor
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.vantor.Quillvox.Remote")
public:
    RemoteAdaptor(InstanceObject *object, const SingleInstance::Handler &handler,
                  const SingleInstance::SpeakAndWaitHandler &speakAndWait)
        : QDBusAbstractAdaptor(object)
        , m_context(*object)
        , m_handler(handler)
        , m_speakAndWait(speakAndWait)
    {}

public Q_SLOTS:
    // The --status JSON.
    QString Status()
    {
        const QJsonObject reply = answer(m_handler, m_context, QStringLiteral("status"), {});
        return QString::fromUtf8(
            QJsonDocument(reply.value(QStringLiteral("status")).toObject()).toJson(QJsonDocument::Compact));
    }

    void Speak(const QString &text) { answer(m_handler, m_context, QStringLiteral("speak"), text); }

    // Answers when the narration was heard or failed.
    void SpeakAndWait(const QString &text)
    {
        if (!m_speakAndWait) {
            m_context.sendErrorReply(QDBusError::NotSupported, QStringLiteral("Not supported."));
            return;
        }
        m_context.setDelayedReply(true);
        m_speakAndWait(text, [call = m_context.message(),
                              bus = m_context.connection()](const QJsonObject &reply) {
            bus.send(reply.value(QStringLiteral("ok")).toBool()
                         ? call.createReply()
                         : call.createErrorReply(kFailed, reply.value(QStringLiteral("error")).toString()));
        });
    }

private:
    QDBusContext &m_context;
    const SingleInstance::Handler &m_handler;
    const SingleInstance::SpeakAndWaitHandler &m_speakAndWait;
};

SingleInstance::SingleInstance(QDBusConnection bus, QObject *parent)
    : QObject(parent)
    , m_bus(std::move(bus))
{}

SingleInstance::~SingleInstance()
{
    if (!m_registered)
        return;
    m_bus.unregisterService(m_name);
    m_bus.unregisterObject(objectPathFor(m_name));
}

void SingleInstance::keepLaunchActivation()
{
    launchActivation() = ownPlatformData();
}

QString SingleInstance::busNameFor(const QString &configFolder, const QString &home)
{
    const QString folder = QDir::cleanPath(configFolder);
    if (folder == QDir::cleanPath(home + QStringLiteral("/.config")))
        return QString::fromLatin1(kDefaultBusName);
    const QByteArray digest = QCryptographicHash::hash(folder.toUtf8(), QCryptographicHash::Sha1).toHex();
    return QString::fromLatin1(kDefaultBusName) + QStringLiteral(".Profile_") +
           QString::fromLatin1(digest.left(10));
}

QString SingleInstance::busName()
{
    return busNameFor(QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation),
                      QDir::homePath());
}

QString SingleInstance::objectPathFor(const QString &busName)
{
    QString path = u'/' + busName;
    path.replace(u'.', u'/').replace(u'-', u'_');
    return path;
}

const QStringList &SingleInstance::actionNames()
{
    static const QStringList names{
        QStringLiteral("narrate-selection"), QStringLiteral("toggle"),       QStringLiteral("stop"),
        QStringLiteral("skip-back"),         QStringLiteral("skip-forward"), QStringLiteral("cycle-speed"),
        QStringLiteral("settings")};
    return names;
}

bool SingleInstance::listen(Handler handler, SpeakAndWaitHandler speakAndWait)
{
    if (!m_bus.isConnected()) {
        qCWarning(lcApp) << "no session bus: later starts cannot reach this instance";
        return true;
    }
    m_name = busName();
    // Exported before the name is taken: a bus activation's queued call arrives the moment we own it.
    auto *object = new InstanceObject(this);
    m_handler = std::move(handler);
    m_speakAndWait = std::move(speakAndWait);
    new ApplicationAdaptor(object, *this, m_handler);
    new RemoteAdaptor(object, m_handler, m_speakAndWait);
    if (!m_bus.registerObject(objectPathFor(m_name), object)) {
        qCWarning(lcApp) << "cannot export" << objectPathFor(m_name) << m_bus.lastError().message();
        return false;
    }
    const QDBusReply<QDBusConnectionInterface::RegisterServiceReply> reply =
        m_bus.interface()->registerService(m_name, QDBusConnectionInterface::DontQueueService,
                                           QDBusConnectionInterface::DontAllowReplacement);
    if (!reply.isValid() || reply.value() != QDBusConnectionInterface::ServiceRegistered) {
        m_bus.unregisterObject(objectPathFor(m_name));
        return false;
    }
    m_registered = true;
    return true;
}

std::optional<QJsonObject> SingleInstance::send(const QString &command, const QString &argument,
                                                int timeoutMs, QDBusConnection bus)
{
    if (!bus.isConnected())
        return std::nullopt;
    const QString name = busName();
    const QString path = objectPathFor(name);
    QDBusMessage call;
    if (command == u"activate") {
        call = QDBusMessage::createMethodCall(name, path, kApplicationInterface, QStringLiteral("Activate"));
        call << ownPlatformData();
    } else if (command == u"open-url") {
        call = QDBusMessage::createMethodCall(name, path, kApplicationInterface, QStringLiteral("Open"));
        call << QStringList{argument} << ownPlatformData();
    } else if (command == u"status") {
        call = QDBusMessage::createMethodCall(name, path, QString::fromLatin1(kRemoteInterface),
                                              QStringLiteral("Status"));
    } else if (command == u"speak" || command == u"speak-wait") {
        call = QDBusMessage::createMethodCall(name, path, QString::fromLatin1(kRemoteInterface),
                                              command == u"speak" ? QStringLiteral("Speak")
                                                                  : QStringLiteral("SpeakAndWait"));
        call << argument;
        if (command == u"speak-wait")
            timeoutMs = std::numeric_limits<int>::max(); // as long as the narration takes
    } else {
        call = QDBusMessage::createMethodCall(name, path, kApplicationInterface,
                                              QStringLiteral("ActivateAction"));
        call << command << QVariantList() << QVariantMap();
    }
    call.setAutoStartService(false);
    const QDBusMessage reply = bus.call(call, QDBus::Block, timeoutMs);
    if (reply.type() == QDBusMessage::ErrorMessage) {
        const QString error = reply.errorName();
        if (error == u"org.freedesktop.DBus.Error.ServiceUnknown" ||
            error == u"org.freedesktop.DBus.Error.NameHasNoOwner")
            return std::nullopt;
        if (error == u"org.freedesktop.DBus.Error.NoReply" || error == u"org.freedesktop.DBus.Error.Timeout")
            return QJsonObject{
                {QStringLiteral("ok"), false},
                {QStringLiteral("notAnswering"), true},
                {QStringLiteral("error"), QStringLiteral("Quillvox is running but not answering.")}};
        return QJsonObject{{QStringLiteral("ok"), false}, {QStringLiteral("error"), reply.errorMessage()}};
    }
    QJsonObject result{{QStringLiteral("ok"), true}};
    if (command == u"status") {
        const QJsonDocument status = QJsonDocument::fromJson(reply.arguments().value(0).toString().toUtf8());
        result.insert(QStringLiteral("status"), status.object());
    }
    return result;
}

#include "SingleInstance.moc"
