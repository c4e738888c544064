// SPDX-License-Identifier: GPL-3.0-or-later
// The running app over the rig's session bus, as launchers, media keys and playerctl reach it: callback
// URLs through org.freedesktop.Application.Open, actions, Activate, MPRIS, and a second profile.
#include "AppUnderTest.h"

#include "app/SingleInstance.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>

namespace {

const QString kSentence =
    QStringLiteral("Media keys drive this narration while it plays its tone to the end.");
const QByteArray kTitle = "Media keys drive this narration while it plays its tone to t"; // cut at 60

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
    AppUnderTest m_app;
    QString m_name = SingleInstance::busName();

    // A call on org.freedesktop.Application, as a launcher makes it; true when it was answered.
    bool applicationCall(const QString &method, const QVariantList &arguments) const
    {
        QDBusMessage call =
            QDBusMessage::createMethodCall(m_name, SingleInstance::objectPathFor(m_name),
                                           QStringLiteral("org.freedesktop.Application"), method);
        call.setArguments(arguments + QVariantList{QVariantMap()});
        return QDBusConnection::sessionBus().call(call).type() == QDBusMessage::ReplyMessage;
    }

    QByteArray playerctl(const QStringList &arguments) const
    {
        return runProgram(QStringLiteral("playerctl"), QStringList{"-p", "quillvox"} + arguments).trimmed();
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (const QString lack = desktopLacks({"playerctl"}); !lack.isEmpty())
            QSKIP(qPrintable(lack));
        QVERIFY2(m_server.start({"--synth", "sine"}), qPrintable(m_server.errorString()));
        m_app.useServer(m_server);
        m_app.env.remove(QStringLiteral("QUILLVOX_AUDIO_OUTPUT")); // the rig's sound server
        // Normal operation, not the first run.
        AppUnderTest::setSettings({{"hasCompletedOnboarding", true}});
        QCOMPARE(m_app.storeKey(), QString());
        QVERIFY(m_app.start());
    }

    // The token crosses the bus in a message, never a command line that other users can read.
    void callbackUrlSignsIn()
    {
        const QUrlQuery fragment = m_server.signIn();
        const QByteArray token = fragment.queryItemValue(QStringLiteral("access_token")).toUtf8();
        QVERIFY(!token.isEmpty());
        QVERIFY(applicationCall(
            QStringLiteral("Open"),
            {QStringList{"quillvox://auth/callback#" + fragment.toString(QUrl::FullyEncoded)}}));

        QStringList leaked;
        const auto signedIn = [&] {
            leaked += commandLinesHolding(token);
            return m_app.status()[u"auth"][u"state"].toString() == u"signedIn";
        };
        QTRY_VERIFY_WITH_TIMEOUT(signedIn(), 15000);
        QCOMPARE(leaked, QStringList());
    }

    // playerctl as a desktop's media widget follows it: Playing from the moment the narration is
    // generated, Paused, Stopped at the end and after Stop, and a track of its own for a history replay.
    void actionsAndMediaControlsFollowANarration()
    {
        QProcess follow;
        follow.start(QStringLiteral("playerctl"), {"-p", "quillvox", "--follow", "status"});
        QVERIFY(follow.waitForStarted());
        QTRY_VERIFY(follow.canReadLine()); // its first line: the status now
        QCOMPARE(m_app.run({"--speak", kSentence}).exitCode, 0);
        QTRY_COMPARE_WITH_TIMEOUT(playerctl({"status"}), QByteArray("Playing"), 15000);
        QCOMPARE(playerctl({"metadata", "xesam:title"}), kTitle);
        QCOMPARE(playerctl({"metadata", "xesam:artist"}), QByteArray("marin"));
        QTRY_VERIFY_WITH_TIMEOUT(playerctl({"position"}).toDouble() > 0.5, 10000);

        QVERIFY(applicationCall(QStringLiteral("ActivateAction"), {"toggle", QVariantList()}));
        QTRY_COMPARE(playerctl({"status"}), QByteArray("Paused"));
        const double pausedAt = playerctl({"position"}).toDouble();
        QTest::qWait(500);
        QCOMPARE(playerctl({"position"}).toDouble(), pausedAt);

        playerctl({"play-pause"});
        QTRY_COMPARE(playerctl({"status"}), QByteArray("Playing"));
        // Played to the end: stopped, its length known.
        QTRY_COMPARE_WITH_TIMEOUT(playerctl({"status"}), QByteArray("Stopped"), 30000);
        QVERIFY(playerctl({"metadata", "mpris:length"}).toLongLong() > 1000000);
        playerctl({"play"});
        QTRY_COMPARE(playerctl({"status"}), QByteArray("Playing"));
        QVERIFY(applicationCall(QStringLiteral("ActivateAction"), {"stop", QVariantList()}));
        QTRY_COMPARE(playerctl({"status"}), QByteArray("Stopped"));
        QCOMPARE(m_app.status()[u"hasContent"].toBool(), false);

        QTest::qWait(300); // the last change reaches the follower
        follow.terminate();
        follow.waitForFinished(2000);
        QByteArrayList seen = follow.readAllStandardOutput().split('\n');
        seen.removeAll(QByteArray());
        seen.erase(std::unique(seen.begin(), seen.end()), seen.end());
        QCOMPARE(seen, QByteArrayList(
                           {"Stopped", "Playing", "Paused", "Playing", "Stopped", "Playing", "Stopped"}));

        // A replay from the history is a new track with its own title.
        const QString other = QStringLiteral("A second narration, short.");
        const AppUnderTest::Run waited = m_app.run({"--speak", other, "--wait"});
        QVERIFY2(waited.exitCode == 0, waited.err.constData());
        QCOMPARE(playerctl({"metadata", "xesam:title"}), other.toUtf8());
        const QByteArray track = playerctl({"metadata", "mpris:trackid"});
        QVERIFY(applicationCall(QStringLiteral("ActivateAction"), {"settings", QVariantList()}));
        QVERIFY(m_app.walk({"History", u"Play " + kSentence}));
        QTRY_COMPARE(playerctl({"metadata", "xesam:title"}), kTitle);
        QVERIFY(playerctl({"metadata", "mpris:trackid"}) != track);
        playerctl({"stop"});
        QTRY_COMPARE(playerctl({"status"}), QByteArray("Stopped"));
    }

    // On a terminal the key is asked for and never shown; it is stored as typed, without its line end.
    void setApiKeyOnATerminal()
    {
        QProcessEnvironment env = m_app.env;
        env.insert(QStringLiteral("QUILLVOX_KEYCHAIN_SERVICE"),
                   QStringLiteral("com.vantor.quillvox.test.pty"));
        QProcess terminal;
        terminal.setProcessEnvironment(env);
        terminal.setProcessChannelMode(QProcess::MergedChannels);
        terminal.start(QStringLiteral("script"), {"-qec", QUILLVOX_EXECUTABLE " --set-api-key", "/dev/null"});
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
            runProgram(QStringLiteral("secret-tool"),
                       {"lookup", "service", "com.vantor.quillvox.test.pty", "account", "openai-api-key"}),
            QByteArray("sk-typed-1234"));
    }

    void activateOpensTheSettingsWindow()
    {
        QVERIFY(applicationCall(QStringLiteral("Activate"), {}));
        QVERIFY(!visibleWindows(QStringLiteral("Settings"), 15000).isEmpty());
    }

    // A purchase finished in the browser, with no first-run window open: the balance is asked again and
    // the settings window shows it on its Account section.
    void purchaseShowsTheNewBalance()
    {
        QVERIFY(
            !m_server.control(QStringLiteral("/dev/balance"), {{QStringLiteral("seconds"), 5400}}).isEmpty());
        QVERIFY(m_app.walk({"Voice", "=Cedar"})); // away from the Account section
        QTest::qWait(5100);                       // past the refresh throttle of the earlier activations
        QVERIFY(applicationCall(QStringLiteral("Open"), {QStringList{"quillvox://purchase/success"}}));
        QVERIFY(m_app.shows(QStringLiteral("Balance 1h 30m")));
        QTRY_VERIFY(m_app.control(QStringLiteral("Cedar")).isEmpty());
    }

    void secondProfileRunsBeside()
    {
        QTemporaryDir profile;
        AppUnderTest second(AppUnderTest::Accessibility::Off);
        second.env = m_app.env;
        second.env.insert(QStringLiteral("XDG_CONFIG_HOME"), profile.filePath(QStringLiteral("config")));
        const QString name =
            SingleInstance::busNameFor(profile.filePath(QStringLiteral("config")), QDir::homePath());
        QVERIFY(name != m_name);
        QVERIFY(second.start());
        QVERIFY(QDBusConnection::sessionBus().interface()->isServiceRegistered(name));
        QCOMPARE(runProgram(QStringLiteral("playerctl"), {"-l"}).trimmed().split('\n').size(), 2);
        QVERIFY(second.stop());
    }
};

QTEST_GUILESS_MAIN(TestAppBus)
#include "tst_appbus.moc"
