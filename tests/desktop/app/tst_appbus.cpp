// SPDX-License-Identifier: GPL-3.0-or-later
// The running app over the rig's session bus, as launchers, media keys and playerctl reach it: callback
// URLs through org.freedesktop.Application.Open, actions, Activate, MPRIS, and a second profile.
#include "DevServer.h"
#include "PulseServer.h"

#include "app/SingleInstance.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QProcess>
#include <QSettings>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

namespace {

const QString kSentence =
    QStringLiteral("Media keys drive this narration while it plays its tone to the end.");

QByteArray run(const QString &program, const QStringList &arguments, const QProcessEnvironment &env = {})
{
    QProcess process;
    if (!env.isEmpty())
        process.setProcessEnvironment(env);
    process.start(program, arguments);
    process.waitForFinished(15000);
    return process.readAllStandardOutput().trimmed();
}

// Every command line on the machine that holds `secret`.
QStringList commandLinesHolding(const QByteArray &secret)
{
    QStringList found;
    for (const QString &pid :
         QDir(QStringLiteral("/proc")).entryList({QStringLiteral("[0-9]*")}, QDir::Dirs)) {
        QFile file(QStringLiteral("/proc/") + pid + QStringLiteral("/cmdline"));
        if (file.open(QIODevice::ReadOnly) && file.readAll().contains(secret))
            found.append(pid);
    }
    return found;
}

} // namespace

class TestAppBus : public QObject
{
    Q_OBJECT

    DevServer m_server;
    QProcess m_app;
    QProcessEnvironment m_env = QProcessEnvironment::systemEnvironment();
    QString m_name;

    QJsonObject status() const
    {
        return QJsonDocument::fromJson(
                   run(QStringLiteral(QUILLVOX_EXECUTABLE), {QStringLiteral("--status")}, m_env))
            .object();
    }

    QDBusMessage applicationCall(const QString &method) const
    {
        return QDBusMessage::createMethodCall(m_name, SingleInstance::objectPathFor(m_name),
                                              QStringLiteral("org.freedesktop.Application"), method);
    }

    QByteArray playerctl(const QStringList &arguments) const
    {
        return run(QStringLiteral("playerctl"),
                   QStringList{QStringLiteral("-p"), QStringLiteral("quillvox")} + arguments);
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (QStandardPaths::findExecutable(QStringLiteral("playerctl")).isEmpty())
            QSKIP("playerctl is not installed");
        QVERIFY2(m_server.start({QStringLiteral("--synth"), QStringLiteral("sine")}),
                 qPrintable(m_server.errorString()));
        m_env = m_server.appEnvironment(m_env);
        m_name = SingleInstance::busName();
        // Normal operation, not the first run.
        QSettings(QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
                      QStringLiteral("/Quillvox/Quillvox.conf"),
                  QSettings::IniFormat)
            .setValue(QStringLiteral("hasCompletedOnboarding"), true);
        QCOMPARE(DevServer::setOwnKey(QStringLiteral(QUILLVOX_EXECUTABLE), m_env), QString());

        m_app.setProcessEnvironment(m_env);
        dieWithTheTest(m_app);
        m_app.start(QStringLiteral(QUILLVOX_EXECUTABLE), QStringList());
        QTRY_VERIFY_WITH_TIMEOUT(!status().isEmpty(), 15000);
    }

    void cleanupTestCase()
    {
        m_app.terminate();
        m_app.waitForFinished(5000);
    }

    // The token crosses the bus in a message, never a command line that other users can read.
    void callbackUrlSignsIn()
    {
        const QUrlQuery fragment = m_server.signIn();
        const QByteArray token = fragment.queryItemValue(QStringLiteral("access_token")).toUtf8();
        QVERIFY(!token.isEmpty());
        QDBusMessage open = applicationCall(QStringLiteral("Open"));
        open << QStringList{QStringLiteral("quillvox://auth/callback#") +
                            fragment.toString(QUrl::FullyEncoded)}
             << QVariantMap();
        const QDBusMessage reply = QDBusConnection::sessionBus().call(open);
        QCOMPARE(reply.type(), QDBusMessage::ReplyMessage);

        QStringList leaked;
        const auto signedIn = [&] {
            leaked += commandLinesHolding(token);
            return status()
                       .value(QStringLiteral("auth"))
                       .toObject()
                       .value(QStringLiteral("state"))
                       .toString() == u"signedIn";
        };
        QTRY_VERIFY_WITH_TIMEOUT(signedIn(), 15000);
        QCOMPARE(leaked, QStringList());
    }

    void actionsAndMediaControlsFollowANarration()
    {
        QCOMPARE(playerctl({QStringLiteral("status")}), QByteArray("Stopped"));
        QCOMPARE(run(QStringLiteral(QUILLVOX_EXECUTABLE), {QStringLiteral("--speak"), kSentence}, m_env),
                 QByteArray());
        QTRY_COMPARE_WITH_TIMEOUT(playerctl({QStringLiteral("status")}), QByteArray("Playing"), 15000);
        QCOMPARE(playerctl({QStringLiteral("metadata"), QStringLiteral("xesam:title")}),
                 QByteArray("Media keys drive this narration while it plays…"));
        QCOMPARE(playerctl({QStringLiteral("metadata"), QStringLiteral("xesam:artist")}),
                 QByteArray("marin"));
        QVERIFY(playerctl({QStringLiteral("metadata"), QStringLiteral("mpris:length")}).toLongLong() >
                1000000);
        QTRY_VERIFY_WITH_TIMEOUT(playerctl({QStringLiteral("position")}).toDouble() > 0.5, 10000);

        QDBusMessage toggle = applicationCall(QStringLiteral("ActivateAction"));
        toggle << QStringLiteral("toggle") << QVariantList() << QVariantMap();
        QCOMPARE(QDBusConnection::sessionBus().call(toggle).type(), QDBusMessage::ReplyMessage);
        QTRY_COMPARE(playerctl({QStringLiteral("status")}), QByteArray("Paused"));
        const double pausedAt = playerctl({QStringLiteral("position")}).toDouble();
        QTest::qWait(500);
        QCOMPARE(playerctl({QStringLiteral("position")}).toDouble(), pausedAt);

        playerctl({QStringLiteral("play-pause")});
        QTRY_COMPARE(playerctl({QStringLiteral("status")}), QByteArray("Playing"));

        QDBusMessage stop = applicationCall(QStringLiteral("ActivateAction"));
        stop << QStringLiteral("stop") << QVariantList() << QVariantMap();
        QCOMPARE(QDBusConnection::sessionBus().call(stop).type(), QDBusMessage::ReplyMessage);
        QTRY_COMPARE(playerctl({QStringLiteral("status")}), QByteArray("Stopped"));
        QCOMPARE(status().value(QStringLiteral("hasContent")).toBool(), false);
    }

    void activateOpensTheSettingsWindow()
    {
        QDBusMessage activate = applicationCall(QStringLiteral("Activate"));
        activate << QVariantMap();
        QCOMPARE(QDBusConnection::sessionBus().call(activate).type(), QDBusMessage::ReplyMessage);
        QVERIFY(!run(QStringLiteral("xdotool"),
                     {QStringLiteral("search"), QStringLiteral("--sync"), QStringLiteral("--onlyvisible"),
                      QStringLiteral("--name"), QStringLiteral("^Settings$")})
                     .isEmpty());
    }

    void secondProfileRunsBeside()
    {
        QTemporaryDir profile;
        QProcessEnvironment env = m_env;
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), profile.filePath(QStringLiteral("config")));
        const QString name =
            SingleInstance::busNameFor(profile.filePath(QStringLiteral("config")), QDir::homePath());
        QVERIFY(name != m_name);

        QProcess second;
        second.setProcessEnvironment(env);
        dieWithTheTest(second);
        second.start(QStringLiteral(QUILLVOX_EXECUTABLE), QStringList());
        QTRY_VERIFY_WITH_TIMEOUT(QDBusConnection::sessionBus().interface()->isServiceRegistered(name), 15000);
        QCOMPARE(second.state(), QProcess::Running);
        QCOMPARE(m_app.state(), QProcess::Running);
        QVERIFY(!run(QStringLiteral(QUILLVOX_EXECUTABLE), {QStringLiteral("--status")}, env).isEmpty());
        QCOMPARE(run(QStringLiteral("playerctl"), {QStringLiteral("-l")}).split('\n').size(), 2);
        second.terminate();
        QVERIFY(second.waitForFinished(5000));
    }
};

QTEST_GUILESS_MAIN(TestAppBus)
#include "tst_appbus.moc"
