// SPDX-License-Identifier: GPL-3.0-or-later
// Narrating on GNOME under Wayland: GNOME Shell 43 with our extension enabled, run as the rig's
// unprivileged user. A Wayland client's highlighted text (wl-copy --primary stands in for an editor)
// reaches the speech server through `quillvox --narrate-selection` and through the narration shortcut
// pressed on the compositor's keyboard, the clipboard when nothing is highlighted, and a key bound
// through the extension reaches its action and no other. GNOME Shell runs nested in the rig's X server:
// headless, its seat has no keyboard, so no Wayland client could take the selection or a key press.
#include "DevServer.h"
#include "X11Desktop.h"
#include "keyring/KeyringFixture.h"

#include "account/KeychainHelper.h"
#include "core/UserDefaults.h"
#include "platform/gnome/GnomeShellExtension.h"
#include "platform/gnome/GnomeShellShortcuts.h"

#include <QDBusConnectionInterface>
#include <QDir>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

namespace {

const QString kKey = QStringLiteral("sk-gnome-1357");

bool writeFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

} // namespace

class TestGnomeShellSession : public QObject
{
    Q_OBJECT

    QTemporaryDir m_runtime{QDir::tempPath() + QStringLiteral("/qv-gnome-XXXXXX")};
    std::unique_ptr<KeyringFixture> m_bus;
    DevServer m_server;
    ChildProcess m_systemBus;
    ChildProcess m_shell;
    ChildProcess m_app;
    QProcessEnvironment m_wayland;
    QByteArray m_shellWindow;

    // wl-copy on the GNOME session. It takes the selection once its window has the keyboard, and the
    // nested compositor has the keyboard only while its X window has the focus.
    int wlCopy(const QStringList &arguments)
    {
        QProcess copy;
        copy.setProcessEnvironment(m_wayland);
        copy.start(QStringLiteral("wl-copy"), arguments);
        for (int i = 0; i < 20 && !copy.waitForFinished(500); ++i)
            xdotool({"windowfocus", "--sync", m_shellWindow, "mousemove", "--window", m_shellWindow, "400",
                     "300", "click", "1"});
        return copy.state() == QProcess::NotRunning ? copy.exitCode() : -1;
    }

    int narrateSelection()
    {
        QProcess client;
        client.setProcessEnvironment(m_wayland);
        client.start(QStringLiteral(QUILLVOX_EXECUTABLE), {QStringLiteral("--narrate-selection")});
        return client.waitForFinished(15000) ? client.exitCode() : -1;
    }

private Q_SLOTS:
    void initTestCase()
    {
        const QString user = qEnvironmentVariable("RIG_WAYLAND_USER");
        if (user.isEmpty())
            QSKIP("needs the rig's unprivileged user for GNOME Shell (RIG_WAYLAND_USER)");
        if (const QString lack = desktopLacks({"gnome-shell", "wl-copy", "xdotool"}); !lack.isEmpty())
            QSKIP(qPrintable(lack));
        QVERIFY(m_runtime.isValid());
        const QString rt = m_runtime.path();

        // One bus for GNOME Shell, the app and this test, with a keyring for the app's key.
        m_bus = std::make_unique<KeyringFixture>(KeyringFixture::Mode::GnomeKeyring, user);
        QVERIFY2(m_bus->isReady(), qPrintable(m_bus->errorString()));

        // Installed as a system extension: GNOME Shell asks the web for updates of per-user ones.
        const QString extension =
            rt + QStringLiteral("/share/gnome-shell/extensions/") + QLatin1String(GnomeShellExtension::kUuid);
        QDir().mkpath(extension);
        for (const QFileInfo &file :
             QDir(QStringLiteral(QUILLVOX_GNOME_EXTENSION_DIR)).entryInfoList(QDir::Files))
            QVERIFY(QFile::copy(file.filePath(), extension + u'/' + file.fileName()));
        QVERIFY(writeFile(rt + QStringLiteral("/config/glib-2.0/settings/keyfile"),
                          "[org/gnome/shell]\nenabled-extensions=['" +
                              QByteArray(GnomeShellExtension::kUuid) + "']\n"));
        QCOMPARE(runProgram(QStringLiteral("chown"), {"-R", user, rt}), QByteArray());

        // GNOME Shell asks logind on the system bus, and stops when there is none to ask.
        m_systemBus.process.start(QStringLiteral("runuser"),
                                  {"-u", user, "--", "dbus-daemon", "--session", "--nofork", "--nopidfile",
                                   "--address=unix:path=" + rt + "/system_bus"});
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(rt + QStringLiteral("/system_bus")), 10000);

        // Not on our output: a compositor outliving the test would hold ctest's pipe open.
        m_shell.process.setStandardOutputFile(rt + QStringLiteral("/gnome-shell.log"));
        m_shell.process.setStandardErrorFile(rt + QStringLiteral("/gnome-shell.log"), QIODevice::Append);
        m_shell.process.start(QStringLiteral("runuser"),
                              {"-u", user, "--", "env", "-i", "PATH=/usr/bin:/bin", "HOME=" + rt,
                               "XDG_RUNTIME_DIR=" + rt, "XDG_CONFIG_HOME=" + rt + "/config",
                               "XDG_DATA_HOME=" + rt + "/data", "XDG_DATA_DIRS=" + rt + "/share:/usr/share",
                               "GSETTINGS_BACKEND=keyfile", "DISPLAY=" + qEnvironmentVariable("DISPLAY"),
                               "DBUS_SESSION_BUS_ADDRESS=" + m_bus->busAddress(),
                               "DBUS_SYSTEM_BUS_ADDRESS=unix:path=" + rt + "/system_bus", "gnome-shell",
                               "--nested", "--wayland", "--no-x11"});
        const auto serving = [] {
            return QDBusConnection::sessionBus().interface()->isServiceRegistered(
                QString::fromLatin1(GnomeShellExtension::kService));
        };
        QTRY_VERIFY2_WITH_TIMEOUT(serving(), "the extension did not start; see gnome-shell.log", 60000);
        QVERIFY(QFile::exists(rt + QStringLiteral("/wayland-0")));
        // The nested compositor's window on the rig's X server.
        // xdotool's search does not find it by name; xwininfo does.
        const auto shellWindow = [this] {
            const QByteArray info = runProgram(QStringLiteral("xwininfo"), {"-name", "gnome-shell"});
            const QRegularExpressionMatch id = QRegularExpression(QStringLiteral("Window id: (0x[0-9a-f]+)"))
                                                   .match(QString::fromLatin1(info));
            m_shellWindow = id.captured(1).toLatin1();
            return !m_shellWindow.isEmpty();
        };
        QTRY_VERIFY2_WITH_TIMEOUT(shellWindow(), runProgram(QStringLiteral("xwininfo"), {"-root", "-tree"}),
                                  15000);

        QVERIFY2(m_server.start({"--pace", "0", "--openai-key", kKey}), qPrintable(m_server.errorString()));
        QVERIFY(KeychainHelper::shared().save(kKey, KeychainKey::openAIAPIKey));
        UserDefaults::standard().setBoolean(QStringLiteral("hasCompletedOnboarding"), true);
        UserDefaults::standard().sync();

        // A native Wayland client of GNOME's session, with no X11 to fall back on.
        m_wayland = m_bus->environment();
        m_wayland.remove(QStringLiteral("DISPLAY"));
        m_wayland.insert(QStringLiteral("WAYLAND_DISPLAY"), rt + QStringLiteral("/wayland-0"));
        m_wayland.insert(QStringLiteral("XDG_SESSION_TYPE"), QStringLiteral("wayland"));
        m_wayland.insert(QStringLiteral("XDG_CURRENT_DESKTOP"), QStringLiteral("GNOME"));
        m_wayland.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("wayland"));
        QProcessEnvironment appEnv = m_wayland;
        appEnv.insert(QStringLiteral("QUILLVOX_AUDIO_OUTPUT"), QStringLiteral("null"));
        appEnv.insert(QStringLiteral("QUILLVOX_OPENAI_ORIGIN"), m_server.url().toString());
        m_app.process.setProcessEnvironment(appEnv);
        m_app.process.setProcessChannelMode(QProcess::ForwardedChannels);
        m_app.process.start(QStringLiteral(QUILLVOX_EXECUTABLE), QStringList());
        QVERIFY(m_app.process.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(narrateSelection() != 2, 20000); // 2: not running yet
    }

    // The highlight is narrated exactly as it stands; with nothing highlighted, the clipboard.
    void narratesTheHighlight_data()
    {
        QTest::addColumn<QString>("highlighted");
        QTest::addColumn<QString>("copied");
        QTest::addColumn<QString>("expected");
        const QString text = QStringLiteral("Highlighted in a GNOME window, \u00e9t\u00e9 \u2014 ok.");
        QTest::newRow("highlighted") << text << "Copied before." << text;
        QTest::newRow("nothing highlighted") << ""
                                             << "Copied before."
                                             << "Copied before.";
    }
    void narratesTheHighlight()
    {
        QFETCH(QString, highlighted);
        QFETCH(QString, copied);
        QFETCH(QString, expected);
        QCOMPARE(wlCopy({copied}), 0);
        QCOMPARE(wlCopy(highlighted.isEmpty() ? QStringList{"--primary", "--clear"}
                                              : QStringList{"--primary", highlighted}),
                 0);
        const qsizetype before = m_server.requests().size();
        QCOMPARE(narrateSelection(), 0);
        const QList<QJsonObject> log = m_server.waitForRequests(before + 1, std::chrono::seconds(10));
        QCOMPARE(log.size(), before + 1);
        QCOMPARE(DevServer::input(log.last()), expected);
    }

    // The app's own narration shortcut (Ctrl+Alt+S by default), which it bound through the extension,
    // pressed on the compositor's keyboard: the highlight is narrated.
    void shortcutNarratesTheHighlight()
    {
        const QString text = QStringLiteral("Narrated by its shortcut on GNOME.");
        QCOMPARE(wlCopy({"--primary", text}), 0);
        const qsizetype before = m_server.requests().size();
        xdotool({"windowfocus", "--sync", m_shellWindow, "key", "--clearmodifiers", "ctrl+alt+s"});
        const QList<QJsonObject> log = m_server.waitForRequests(before + 1, std::chrono::seconds(10));
        QCOMPARE(log.size(), before + 1);
        QCOMPARE(DevServer::input(log.last()), text);
    }

    // A key bound through the extension, pressed on the compositor's keyboard, runs its action; another
    // combination runs nothing. Combinations of our own: the running app may hold its default ones.
    void pressedKeyRunsItsAction()
    {
        GnomeShellShortcuts shortcuts;
        ActionShortcuts::Assignments assigned;
        QStringList pressed;
        shortcuts.setAssignmentsHandler([&](const ActionShortcuts::Assignments &a) { assigned = a; });
        shortcuts.setActivationHandler([&](const QString &id) { pressed.append(id); });
        shortcuts.bind({{"toggle", "Play/Pause", "CTRL+SHIFT+ALT+y"}, {"stop", "Stop", "CTRL+SHIFT+ALT+u"}});
        QTRY_COMPARE(assigned, (ActionShortcuts::Assignments{{"toggle", "Ctrl+Shift+Alt+Y"},
                                                             {"stop", "Ctrl+Shift+Alt+U"}}));

        xdotool({"windowfocus", "--sync", m_shellWindow, "key", "--clearmodifiers", "ctrl+shift+alt+i"});
        xdotool({"windowfocus", "--sync", m_shellWindow, "key", "--clearmodifiers", "ctrl+shift+alt+u"});
        QTRY_COMPARE(pressed, QStringList{"stop"});
    }

    void cleanupTestCase()
    {
        m_app.process.terminate();
        m_app.process.waitForFinished(5000);
        // runuser hands SIGTERM on to its program and waits for it; killed, it would leave the program
        // behind.
        m_shell.process.terminate();
        const bool shellEnded = m_shell.process.waitForFinished(10000);
        m_systemBus.process.terminate();
        m_systemBus.process.waitForFinished(5000);
        QVERIFY(shellEnded);
    }
};

QTEST_GUILESS_MAIN(TestGnomeShellSession)
#include "tst_gnomeshellsession.moc"
