// SPDX-License-Identifier: GPL-3.0-or-later
#include "keyring/KeyringFixture.h"
#include "StopProcess.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QDBusVirtualObject>
#include <QDir>
#include <QFile>
#include <QMutex>
#include <QTest>

namespace {

const QString kSecrets = QStringLiteral("org.freedesktop.secrets");
const QString kServicePath = QStringLiteral("/org/freedesktop/secrets");
const QString kServiceInterface = QStringLiteral("org.freedesktop.Secret.Service");
const QString kLoginCollection = QStringLiteral("/org/freedesktop/secrets/collection/login");

QDBusMessage callSecrets(const QDBusConnection &bus, const QString &path, const QString &interface,
                         const QString &method, const QVariantList &arguments)
{
    QDBusMessage call = QDBusMessage::createMethodCall(kSecrets, path, interface, method);
    call.setArguments(arguments);
    return bus.call(call, QDBus::Block, 5000);
}

bool writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(content) == content.size();
}

QByteArray busConfig(const QString &dir, bool withServiceDir, const QString &otherUser)
{
    // No <standard_session_servicedirs/>: a bus that could activate the installed keyring would start one
    // as soon as a test asked for it.
    return QStringLiteral(
               "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
               " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
               "<busconfig><type>session</type><listen>unix:path=%1/bus</listen><auth>EXTERNAL</auth>%2\n"
               "<policy context=\"default\">%3<allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
               "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n")
        .arg(dir,
             withServiceDir ? QStringLiteral("<servicedir>%1/services</servicedir>").arg(dir) : QString(),
             otherUser.isEmpty() ? QString() : QStringLiteral("<allow user=\"%1\"/>").arg(otherUser))
        .toUtf8();
}

} // namespace

// Takes every call and answers none until release(), like a prompt dialog nobody looks at.
class KeyringFixture::SilentPrompter final : public QDBusVirtualObject
{
public:
    QString introspect(const QString &) const override { return {}; }

    bool handleMessage(const QDBusMessage &message, const QDBusConnection &) override
    {
        const QMutexLocker locker(&m_mutex);
        message.setDelayedReply(true);
        m_held.append(message);
        return true;
    }

    int calls() const
    {
        const QMutexLocker locker(&m_mutex);
        return static_cast<int>(m_held.size());
    }

    // Fails the held calls, so that gnome-keyring gives up its prompts now rather than at its own
    // timeout, which would hold up the prompts of later tests.
    void release(QDBusConnection &bus)
    {
        const QMutexLocker locker(&m_mutex);
        for (const QDBusMessage &message : std::as_const(m_held)) {
            if (message.isReplyRequired())
                bus.send(
                    message.createErrorReply(QDBusError::Failed, QStringLiteral("the prompter went away")));
        }
    }

private:
    mutable QMutex m_mutex;
    QList<QDBusMessage> m_held;
};

KeyringFixture::KeyringFixture(Mode mode, const QString &otherUser)
    : m_dir(QDir::tempPath() + QStringLiteral("/quillvox-keyring-XXXXXX"))
{
    qDBusRegisterMetaType<QMap<QString, QString>>();
    if (qEnvironmentVariableIsSet("DBUS_SESSION_BUS_ADDRESS"))
        m_previousAddress = qgetenv("DBUS_SESSION_BUS_ADDRESS");
    m_error = m_dir.isValid() ? startBus(mode, otherUser)
                              : QStringLiteral("cannot create a temporary folder: ") + m_dir.errorString();
    if (m_error.isEmpty() && mode == Mode::GnomeKeyring)
        m_error = startGnomeKeyring();
}

KeyringFixture::~KeyringFixture()
{
    releaseUnlockPrompts();
    if (!m_connectionName.isEmpty())
        QDBusConnection::disconnectFromBus(m_connectionName);
    stopProcess(m_keyring, 3000);
    stopProcess(m_bus, 3000);
    if (m_previousAddress)
        qputenv("DBUS_SESSION_BUS_ADDRESS", *m_previousAddress);
    else
        qunsetenv("DBUS_SESSION_BUS_ADDRESS");
}

QString KeyringFixture::startBus(Mode mode, const QString &otherUser)
{
    const QString dir = m_dir.path();
    // The other user reaches the socket by its path, and sees nothing else here.
    if (!otherUser.isEmpty())
        QFile::setPermissions(dir, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ExeGroup |
                                       QFile::ExeOther);
    const QString config = dir + QStringLiteral("/bus.conf");
    const bool stalled = mode == Mode::StalledSecretService;
    if (!writeFile(config, busConfig(dir, stalled, otherUser)))
        return QStringLiteral("cannot write the bus configuration");
    // Starts, but never takes the name: the activation stays pending until the bus gives up. It ends with
    // the bus.
    if (stalled &&
        (!QDir().mkpath(dir + QStringLiteral("/services")) ||
         !writeFile(dir + QStringLiteral("/services/org.freedesktop.secrets.service"),
                    "[D-BUS Service]\nName=org.freedesktop.secrets\nExec=/usr/bin/dbus-monitor --address "
                    "unix:path=" +
                        dir.toUtf8() + "/bus\n")))
        return QStringLiteral("cannot write the stalled service's activation file");

    m_bus.setStandardErrorFile(dir + QStringLiteral("/dbus.log"));
    m_bus.start(QStringLiteral("dbus-daemon"),
                {QStringLiteral("--config-file=") + config, QStringLiteral("--nofork"),
                 QStringLiteral("--nopidfile"), QStringLiteral("--print-address=1")},
                QIODevice::ReadOnly);
    if (!m_bus.waitForStarted(5000))
        return QStringLiteral("cannot start dbus-daemon: ") + m_bus.errorString();
    if (!QTest::qWaitFor([&] { return m_bus.canReadLine(); }, 10000))
        return QStringLiteral("dbus-daemon did not report its address") + logs();
    m_address = QString::fromUtf8(m_bus.readLine().trimmed());
    qputenv("DBUS_SESSION_BUS_ADDRESS", m_address.toUtf8());
    m_connectionName = QStringLiteral("keyring-fixture-%1").arg(reinterpret_cast<quintptr>(this));
    if (!QDBusConnection::connectToBus(m_address, m_connectionName).isConnected())
        return QStringLiteral("cannot connect to the private bus") + logs();
    return {};
}

QString KeyringFixture::startGnomeKeyring()
{
    const QString dir = m_dir.path();
    QProcessEnvironment env = environment();
    // Its own runtime folder, or it hands over to a gnome-keyring that already runs for the user; its own
    // data folder, or it opens the user's keyrings.
    for (const char *variable : {"XDG_RUNTIME_DIR", "XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME"}) {
        const QString sub = dir + u'/' + QLatin1String(variable);
        QDir().mkpath(sub);
        QFile::setPermissions(sub, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        env.insert(QLatin1String(variable), sub);
    }
    for (const char *variable : {"DISPLAY", "WAYLAND_DISPLAY", "GNOME_KEYRING_CONTROL"})
        env.remove(QLatin1String(variable));
    m_keyring.setProcessEnvironment(env);
    m_keyring.setStandardOutputFile(dir + QStringLiteral("/keyring.out"));
    m_keyring.setStandardErrorFile(dir + QStringLiteral("/keyring.log"));
    m_keyring.start(
        QStringLiteral("gnome-keyring-daemon"),
        {QStringLiteral("--foreground"), QStringLiteral("--unlock"), QStringLiteral("--components=secrets")},
        QIODevice::WriteOnly);
    if (!m_keyring.waitForStarted(5000))
        return QStringLiteral("cannot start gnome-keyring-daemon: ") + m_keyring.errorString();
    // WORKAROUND: gnome-keyring creates and unlocks the login keyring only for a password ending in a
    // newline; an empty standard input leaves it without one, and every store then waits for a prompt.
    m_keyring.write("\n");
    m_keyring.waitForBytesWritten(5000);
    m_keyring.closeWriteChannel();

    // Ask the bus first rather than the service: a call to org.freedesktop.secrets before the daemon owns
    // the name could race with its start.
    const QDBusConnection bus(m_connectionName);
    const auto loginIsDefault = [&] {
        const QDBusMessage reply =
            callSecrets(bus, kServicePath, kServiceInterface, QStringLiteral("ReadAlias"), {"default"});
        return reply.arguments().value(0).value<QDBusObjectPath>().path() == kLoginCollection;
    };
    if (QTest::qWaitFor(
            [&] { return bus.interface()->isServiceRegistered(kSecrets).value() && loginIsDefault(); },
            20000))
        return {};
    return QStringLiteral("gnome-keyring did not come up with an unlocked login collection") + logs();
}

QString KeyringFixture::logs() const
{
    // tail heads each file with its name.
    return u'\n' + QString::fromUtf8(
                       run("tail", {"-n+1", m_dir.filePath("dbus.log"), m_dir.filePath("keyring.log")}).out);
}

QProcessEnvironment KeyringFixture::environment() const
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), m_address);
    return env;
}

QList<KeyringFixture::Item> KeyringFixture::items(const QMap<QString, QString> &attributes) const
{
    const QDBusConnection bus(m_connectionName);
    const QDBusMessage found = callSecrets(bus, kServicePath, kServiceInterface,
                                           QStringLiteral("SearchItems"), {QVariant::fromValue(attributes)});
    QList<Item> items;
    for (int i = 0; i < 2 && found.arguments().size() == 2; ++i) {
        for (const QDBusObjectPath &path : qdbus_cast<QList<QDBusObjectPath>>(found.arguments().at(i))) {
            const QDBusMessage label =
                callSecrets(bus, path.path(), QStringLiteral("org.freedesktop.DBus.Properties"),
                            QStringLiteral("Get"), {"org.freedesktop.Secret.Item", "Label"});
            items.append(
                {path.path(), label.arguments().value(0).value<QDBusVariant>().variant().toString(), i == 1});
        }
    }
    return items;
}

bool KeyringFixture::lockLoginCollection() const
{
    const QDBusMessage reply = callSecrets(
        QDBusConnection(m_connectionName), kServicePath, kServiceInterface, QStringLiteral("Lock"),
        {QVariant::fromValue(QList<QDBusObjectPath>{QDBusObjectPath(kLoginCollection)})});
    return qdbus_cast<QList<QDBusObjectPath>>(reply.arguments().value(0))
        .contains(QDBusObjectPath(kLoginCollection));
}

bool KeyringFixture::holdUnlockPrompts()
{
    releaseUnlockPrompts();
    QDBusConnection bus(m_connectionName);
    m_prompter = std::make_unique<SilentPrompter>();
    return bus.registerVirtualObject(QStringLiteral("/"), m_prompter.get(), QDBusConnection::SubPath) &&
           bus.registerService(QStringLiteral("org.gnome.keyring.SystemPrompter"));
}

void KeyringFixture::releaseUnlockPrompts()
{
    if (!m_prompter)
        return;
    QDBusConnection bus(m_connectionName);
    bus.unregisterService(QStringLiteral("org.gnome.keyring.SystemPrompter"));
    bus.unregisterObject(QStringLiteral("/"), QDBusConnection::UnregisterTree);
    m_prompter->release(bus);
    m_prompter.reset();
}

int KeyringFixture::unlockPromptCalls() const
{
    return m_prompter ? m_prompter->calls() : 0;
}

KeyringFixture::Run KeyringFixture::run(const QString &program, const QStringList &arguments,
                                        const QByteArray &input,
                                        const std::optional<QProcessEnvironment> &environment) const
{
    QProcess process;
    process.setProcessEnvironment(environment.value_or(this->environment()));
    process.start(program, arguments);
    process.write(input);
    process.closeWriteChannel();
    const bool finished = process.waitForFinished(30000) && process.exitStatus() == QProcess::NormalExit;
    if (!finished)
        stopProcess(process, 0);
    return {finished, finished ? process.exitCode() : -1, process.readAllStandardOutput(),
            process.readAllStandardError()};
}
