// SPDX-License-Identifier: GPL-3.0-or-later
// The running app over the rig's session bus, as launchers, media keys and playerctl reach it: callback
// URLs through org.freedesktop.Application.Open, actions, Activate, MPRIS, and a second profile.
#include "DevServer.h"
#include "PulseServer.h"
#include "X11Desktop.h"

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
    ChildProcess m_accessibility;

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
        QVERIFY(startAccessibilityBus(m_accessibility));
        m_env = m_server.appEnvironment(m_env);
        m_env.insert(QStringLiteral("QT_LINUX_ACCESSIBILITY_ALWAYS_ON"), QStringLiteral("1"));
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

    // playerctl as a desktop's media widget follows it: Playing from the moment the narration is
    // generated, Paused, Stopped at the end and after Stop, and a track of its own for a history replay.
    void actionsAndMediaControlsFollowANarration()
    {
        QCOMPARE(playerctl({QStringLiteral("status")}), QByteArray("Stopped"));
        QProcess follow;
        follow.start(QStringLiteral("playerctl"), {QStringLiteral("-p"), QStringLiteral("quillvox"),
                                                   QStringLiteral("--follow"), QStringLiteral("status")});
        QVERIFY(follow.waitForStarted());
        QTRY_VERIFY(follow.canReadLine()); // its first line: the status now
        QCOMPARE(run(QStringLiteral(QUILLVOX_EXECUTABLE), {QStringLiteral("--speak"), kSentence}, m_env),
                 QByteArray());
        QTRY_COMPARE_WITH_TIMEOUT(playerctl({QStringLiteral("status")}), QByteArray("Playing"), 15000);
        QCOMPARE(playerctl({QStringLiteral("metadata"), QStringLiteral("xesam:title")}),
                 QByteArray("Media keys drive this narration while it plays its tone to t"));
        QCOMPARE(playerctl({QStringLiteral("metadata"), QStringLiteral("xesam:artist")}),
                 QByteArray("marin"));
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
        // Played to the end: stopped, its length known.
        QTRY_COMPARE_WITH_TIMEOUT(playerctl({QStringLiteral("status")}), QByteArray("Stopped"), 30000);
        QVERIFY(playerctl({QStringLiteral("metadata"), QStringLiteral("mpris:length")}).toLongLong() >
                1000000);
        playerctl({QStringLiteral("play")});
        QTRY_COMPARE(playerctl({QStringLiteral("status")}), QByteArray("Playing"));
        QDBusMessage stop = applicationCall(QStringLiteral("ActivateAction"));
        stop << QStringLiteral("stop") << QVariantList() << QVariantMap();
        QCOMPARE(QDBusConnection::sessionBus().call(stop).type(), QDBusMessage::ReplyMessage);
        QTRY_COMPARE(playerctl({QStringLiteral("status")}), QByteArray("Stopped"));
        QCOMPARE(status().value(QStringLiteral("hasContent")).toBool(), false);

        QTest::qWait(300); // the last change reaches the follower
        follow.terminate();
        follow.waitForFinished(2000);
        QByteArrayList seen;
        for (const QByteArray &line : follow.readAllStandardOutput().split('\n')) {
            if (!line.isEmpty() && (seen.isEmpty() || seen.last() != line))
                seen.append(line);
        }
        QCOMPARE(seen, QByteArrayList(
                           {"Stopped", "Playing", "Paused", "Playing", "Stopped", "Playing", "Stopped"}));

        // A replay from the history is a new track with its own title.
        const QString other = QStringLiteral("A second narration, short.");
        QProcess waiting;
        waiting.setProcessEnvironment(m_env);
        waiting.start(QStringLiteral(QUILLVOX_EXECUTABLE),
                      {QStringLiteral("--speak"), other, QStringLiteral("--wait")});
        QVERIFY(waiting.waitForFinished(30000));
        QVERIFY2(waiting.exitCode() == 0, waiting.readAllStandardError().constData());
        QCOMPARE(playerctl({QStringLiteral("metadata"), QStringLiteral("xesam:title")}), other.toUtf8());
        const QByteArray track = playerctl({QStringLiteral("metadata"), QStringLiteral("mpris:trackid")});
        QDBusMessage settings = applicationCall(QStringLiteral("ActivateAction"));
        settings << QStringLiteral("settings") << QVariantList() << QVariantMap();
        QCOMPARE(QDBusConnection::sessionBus().call(settings).type(), QDBusMessage::ReplyMessage);
        QVERIFY(clickAccessibleControl(QStringLiteral("History")));
        QVERIFY(clickAccessibleControl(u"Play " + kSentence));
        QTRY_COMPARE(playerctl({QStringLiteral("metadata"), QStringLiteral("xesam:title")}),
                     QByteArray("Media keys drive this narration while it plays its tone to t"));
        QVERIFY(playerctl({QStringLiteral("metadata"), QStringLiteral("mpris:trackid")}) != track);
        playerctl({QStringLiteral("stop")});
        QTRY_COMPARE(playerctl({QStringLiteral("status")}), QByteArray("Stopped"));
    }

    // On a terminal the key is asked for and never shown; it is stored as typed, without its line end.
    void setApiKeyOnATerminal()
    {
        QProcessEnvironment env = m_env;
        env.insert(QStringLiteral("QUILLVOX_KEYCHAIN_SERVICE"),
                   QStringLiteral("com.vantor.quillvox.test.pty"));
        QProcess terminal;
        terminal.setProcessEnvironment(env);
        terminal.setProcessChannelMode(QProcess::MergedChannels);
        terminal.start(QStringLiteral("script"),
                       {QStringLiteral("-qec"), QStringLiteral(QUILLVOX_EXECUTABLE " --set-api-key"),
                        QStringLiteral("/dev/null")});
        QByteArray shown;
        // Typed only once asked: the terminal echoes whatever arrives before echo is off.
        QTRY_VERIFY_WITH_TIMEOUT((shown += terminal.readAll()).contains("OpenAI API key: "), 10000);
        terminal.write("sk-typed-1234\n");
        QVERIFY(terminal.waitForFinished(15000));
        shown += terminal.readAll();
        QCOMPARE(terminal.exitCode(), 0);
        QVERIFY2(!shown.contains("sk-typed"), shown.constData());
        QVERIFY2(shown.contains("API key saved to the keyring."), shown.constData());
        QCOMPARE(
            run(QStringLiteral("secret-tool"), {QStringLiteral("lookup"), QStringLiteral("service"),
                                                env.value(QStringLiteral("QUILLVOX_KEYCHAIN_SERVICE")),
                                                QStringLiteral("account"), QStringLiteral("openai-api-key")}),
            QByteArray("sk-typed-1234"));
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

    // A purchase finished in the browser, with no first-run window open: the balance is asked again and
    // the settings window shows it on its Account section.
    void purchaseShowsTheNewBalance()
    {
        QVERIFY(
            !m_server.control(QStringLiteral("/dev/balance"), {{QStringLiteral("seconds"), 5400}}).isEmpty());
        QVERIFY(clickAccessibleControl(QStringLiteral("Voice"))); // away from the Account section
        QVERIFY(showsAccessibleControl(QStringLiteral("Cedar")));
        QTest::qWait(5100); // past the refresh throttle of the earlier activations
        QDBusMessage open = applicationCall(QStringLiteral("Open"));
        open << QStringList{QStringLiteral("quillvox://purchase/success")} << QVariantMap();
        QCOMPARE(QDBusConnection::sessionBus().call(open).type(), QDBusMessage::ReplyMessage);
        QVERIFY(showsAccessibleControl(QStringLiteral("Balance 1h 30m")));
        QTRY_VERIFY(findAccessibleControl(QStringLiteral("Cedar")).isEmpty());
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
