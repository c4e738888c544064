// SPDX-License-Identifier: GPL-3.0-or-later
// Narrating on GNOME under Wayland: GNOME Shell 43 with our extension enabled, run as the rig's
// unprivileged user. A Wayland client's highlighted text (wl-copy --primary stands in for an editor)
// reaches the speech server through `quillvox --narrate-selection` and through the narration shortcut
// pressed on the compositor's keyboard, the clipboard when nothing is highlighted, and a key bound
// through the extension reaches its action and no other. GNOME Shell runs nested in the rig's X server:
// headless, its seat has no keyboard, so no Wayland client could take the selection or a key press.
#include "AppUnderTest.h"
#include "StatusNotifierWatcher.h"
#include "keyring/KeyringFixture.h"

#include "account/KeychainHelper.h"
#include "platform/gnome/GnomeShellExtension.h"
#include "platform/gnome/GnomeShellShortcuts.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QJsonArray>
#include <QJsonDocument>

#include <memory>

const QString kKey = QStringLiteral("sk-gnome-1357");
const QString kEditorText = QStringLiteral("The editor's text");
const char kProbeUuid[] = "quillvox-probe@tests.vantor.com";
// The nested shell's screen; the widget is 340 wide.
const int kScreenWidth = 1280;
const int kWidgetX = (kScreenWidth - 340) / 2;

class TestGnomeShellSession : public QObject
{
    Q_OBJECT

    QTemporaryDir m_runtime{QDir::tempPath() + QStringLiteral("/qv-gnome-XXXXXX")};
    std::unique_ptr<KeyringFixture> m_bus;
    DevServer m_server;
    ChildProcess m_systemBus;
    ChildProcess m_shell;
    AppUnderTest m_app{AppUnderTest::Accessibility::Off};
    ChildProcess m_editor;
    // A tray host, as GNOME's AppIndicator extension runs one: Quillvox must not use it beside our menu.
    std::unique_ptr<StatusNotifierWatcher> m_trayHost;
    QProcessEnvironment m_wayland;
    QByteArray m_shellWindow;
    QJsonObject m_shellFacts;

    // What the probe extension says: Windows, Shell or Indicators.
    static QJsonArray probe(const char *what)
    {
        const QDBusMessage reply = QDBusConnection::sessionBus().call(QDBusMessage::createMethodCall(
            QStringLiteral("com.vantor.QuillvoxTest.Probe"), QStringLiteral("/com/vantor/QuillvoxTest/Probe"),
            QStringLiteral("com.vantor.QuillvoxTest.Probe"), QString::fromLatin1(what)));
        const QJsonDocument json = QJsonDocument::fromJson(reply.arguments().value(0).toString().toUtf8());
        return json.isObject() ? QJsonArray{json.object()} : json.array();
    }
    // The first of `list` whose `key` is `value`.
    static QJsonObject withField(const QJsonArray &list, QStringView key, const QString &value)
    {
        const auto found =
            std::find_if(list.begin(), list.end(), [&](const QJsonValue &v) { return v[key] == value; });
        return found == list.end() ? QJsonObject() : found->toObject();
    }
    static QJsonObject window(const char *title) { return withField(probe("Windows"), u"title", title); }
    static QByteArray windows() { return QJsonDocument(probe("Windows")).toJson(QJsonDocument::Compact); }
    static QJsonObject indicator() { return probe("Indicators").first().toObject(); }
    static QString menuLabels()
    {
        QStringList labels;
        for (const QJsonValue &item : indicator()[u"items"].toArray())
            labels.append(item[u"label"].toString() +
                          (item[u"sensitive"].toBool() || item[u"label"].toString() == u"-" ? "" : " (off)"));
        return labels.join(u'|');
    }

    void clickAt(const QJsonObject &rect)
    {
        xdotool({"windowfocus", "--sync", m_shellWindow, "mousemove", "--window", m_shellWindow,
                 QString::number(rect[u"x"].toInt() + rect[u"width"].toInt() / 2),
                 QString::number(rect[u"y"].toInt() + rect[u"height"].toInt() / 2), "click", "1"});
    }
    // Opens the indicator's menu and clicks the item labelled `label` once the menu has stopped sliding in.
    bool chooseFromMenu(const QString &label)
    {
        const auto itemRect = [&] {
            return withField(indicator()[u"items"].toArray(), u"label", label)[u"rect"].toObject();
        };
        QJsonObject rect;
        const bool settled = QTest::qWaitFor(
            [&] {
                if (!indicator()[u"open"].toBool()) {
                    clickAt(indicator()[u"rect"].toObject());
                    QTest::qWait(200);
                }
                const QJsonObject before = itemRect();
                QTest::qWait(100);
                rect = itemRect();
                return indicator()[u"open"].toBool() && !rect.isEmpty() && rect == before;
            },
            5000);
        if (settled)
            clickAt(rect);
        else
            qWarning("%s", QJsonDocument(probe("Indicators")).toJson().constData());
        return settled;
    }

    // Quillvox on the GNOME session, natively or on GNOME's XWayland as it chooses there.
    void startApp(bool native)
    {
        m_app.env = m_server.appEnvironment(m_wayland);
        m_app.env.insert("QUILLVOX_AUDIO_OUTPUT", "null");
        if (!native) {
            m_app.env.remove("QT_QPA_PLATFORM");
            m_app.env.insert("DISPLAY", m_shellFacts[u"display"].toString());
            m_app.env.insert("XAUTHORITY", m_shellFacts[u"xauthority"].toString());
        }
        QVERIFY(m_app.start());
    }

    // wl-copy on the GNOME session. It takes the selection once its window has the keyboard, and the
    // nested compositor has the keyboard only while its X window has the focus.
    int wlCopy(const QStringList &arguments)
    {
        QProcess copy;
        copy.setProcessEnvironment(m_wayland);
        copy.start(QStringLiteral("wl-copy"), arguments);
        for (int i = 0; i < 20 && !copy.waitForFinished(500); ++i)
            clickAt({{"x", 400}, {"y", 300}});
        return copy.state() == QProcess::NotRunning ? copy.exitCode() : -1;
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
        for (const auto &[from, uuid] :
             {std::pair{QUILLVOX_GNOME_EXTENSION_DIR, GnomeShellExtension::kUuid},
              std::pair{QUILLVOX_SOURCE_DIR "/tests/desktop/wayland/gnome-probe", kProbeUuid}}) {
            const QString to = rt + u"/share/gnome-shell/extensions/" + QLatin1String(uuid);
            QVERIFY(QDir().mkpath(to));
            QCOMPARE(runProgram(QStringLiteral("cp"), {"-r", QLatin1String(from) + u"/.", to}), QByteArray());
        }
        QVERIFY(writeFile(rt + QStringLiteral("/config/glib-2.0/settings/keyfile"),
                          "[org/gnome/shell]\nenabled-extensions=['" +
                              QByteArray(GnomeShellExtension::kUuid) + "', '" + kProbeUuid + "']\n"));
        QCOMPARE(runProgram(QStringLiteral("chown"), {"-R", user, rt}), QByteArray());

        // GNOME Shell asks logind on the system bus, and stops when there is none to ask.
        m_systemBus.startAs(user, rt,
                            {"dbus-daemon", "--session", "--nofork", "--nopidfile",
                             "--address=unix:path=" + rt + "/system_bus"},
                            QStringLiteral("system-bus.log"));
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(rt + QStringLiteral("/system_bus")), 10000);
        m_shell.startAs(user, rt,
                        {"XDG_CONFIG_HOME=" + rt + "/config", "XDG_DATA_HOME=" + rt + "/data",
                         "XDG_DATA_DIRS=" + rt + "/share:/usr/share", "GSETTINGS_BACKEND=keyfile",
                         "DISPLAY=" + qEnvironmentVariable("DISPLAY"),
                         "DBUS_SESSION_BUS_ADDRESS=" + m_bus->busAddress(),
                         "DBUS_SYSTEM_BUS_ADDRESS=unix:path=" + rt + "/system_bus",
                         "MUTTER_DEBUG_DUMMY_MODE_SPECS=" + QString::number(kScreenWidth) + "x800",
                         "gnome-shell", "--nested", "--wayland"},
                        QStringLiteral("gnome-shell.log"));
        const auto serving = [] {
            return QDBusConnection::sessionBus().interface()->isServiceRegistered(
                QString::fromLatin1(GnomeShellExtension::kService));
        };
        QTRY_VERIFY2_WITH_TIMEOUT(serving(), "the extension did not start; see gnome-shell.log", 60000);
        QTRY_VERIFY_WITH_TIMEOUT(!probe("Shell").isEmpty(), 10000);
        m_shellFacts = probe("Shell").first().toObject();
        // The nested compositor's window on the rig's X server ("xwininfo: Window id: 0x... ..."): xdotool's
        // search does not find it by name; xwininfo does.
        QTRY_VERIFY2_WITH_TIMEOUT(
            !(m_shellWindow =
                  runProgram(QStringLiteral("xwininfo"), {"-name", "gnome-shell"}).split(' ').value(3))
                 .isEmpty(),
            runProgram(QStringLiteral("xwininfo"), {"-root", "-tree"}), 15000);

        QVERIFY2(m_server.start({"--pace", "0", "--openai-key", kKey}), qPrintable(m_server.errorString()));
        QVERIFY(KeychainHelper::shared().save(kKey, KeychainKey::openAIAPIKey));
        AppUnderTest::setSettings({{"hasCompletedOnboarding", true}, {"showWidgetWithOwnKey", true}});

        m_wayland = waylandClient(m_bus->environment(), rt + "/wayland-0");
        m_wayland.insert("XDG_CURRENT_DESKTOP", "GNOME");

        m_trayHost = std::make_unique<StatusNotifierWatcher>();
        QVERIFY2(m_trayHost->start(), qPrintable(m_trayHost->errorString()));

        // The user's editor, maximised, with the keyboard.
        m_editor.process.setProcessEnvironment(m_wayland);
        m_editor.process.start(QStringLiteral(QUILLVOX_WAYLAND_EDITOR), {kEditorText, "maximized"});
        QTRY_VERIFY_WITH_TIMEOUT(window("Editor")[u"maximized"].toBool(), 15000);
        startApp(true);
    }

    // The highlight is narrated exactly as it stands; with nothing highlighted, the clipboard.
    void narratesTheHighlight_data()
    {
        QTest::addColumn<QString>("trigger"); // `quillvox --narrate-selection` or the shortcut
        QTest::addColumn<QString>("highlighted");
        QTest::addColumn<QString>("expected");
        const QString text = QStringLiteral("Highlighted in a GNOME window, \u00e9t\u00e9 \u2014 ok.");
        QTest::newRow("highlighted") << "command" << text << text;
        QTest::newRow("nothing highlighted") << u"command"_qs << QString() << u"Copied before."_qs;
        // The app's own narration shortcut (Ctrl+Alt+S by default), which it bound through the extension,
        // pressed on the compositor's keyboard.
        const QString shortcut = QStringLiteral("Narrated by its shortcut on GNOME.");
        QTest::newRow("by the shortcut") << "shortcut" << shortcut << shortcut;
    }
    void narratesTheHighlight()
    {
        QFETCH(QString, trigger);
        QFETCH(QString, highlighted);
        QFETCH(QString, expected);
        QCOMPARE(wlCopy({"Copied before."}), 0);
        QCOMPARE(wlCopy(highlighted.isEmpty() ? QStringList{"--primary", "--clear"}
                                              : QStringList{"--primary", highlighted}),
                 0);
        const qsizetype before = m_server.requests().size();
        if (trigger == u"shortcut")
            xdotool({"windowfocus", "--sync", m_shellWindow, "key", "--clearmodifiers", "ctrl+alt+s"});
        else
            QCOMPARE(m_app.run({"--narrate-selection"}).exitCode, 0);
        const QList<QJsonObject> log = m_server.waitForRequests(before + 1, std::chrono::seconds(10));
        QCOMPARE(log.size(), before + 1);
        QCOMPARE(DevServer::input(log.last()), expected);
    }

    // Natively the extension places the widget; on XWayland, GNOME's choice, the window manager does. Either
    // way it sits at the top centre, 40 px below the top bar, above the maximised editor on all workspaces,
    // and the editor keeps the keyboard; the top bar shows Quillvox's menu.
    void widgetAboveTheEditor_data()
    {
        QTest::addColumn<bool>("native");
        QTest::newRow("native Wayland") << true;
        QTest::newRow("XWayland") << false;
    }
    void widgetAboveTheEditor()
    {
        QFETCH(bool, native);
        QVERIFY(m_app.stop());
        QTRY_VERIFY(probe("Indicators").isEmpty());
        clickAt({{"x", 400}, {"y", 500}}); // into the editor
        QTRY_VERIFY2(window("Editor")[u"focused"].toBool(), qPrintable(windows()));
        startApp(native);
        QTRY_VERIFY_WITH_TIMEOUT(!probe("Indicators").isEmpty(), 10000);

        const int top = probe("Shell").at(0)[u"workArea"][u"y"].toInt();
        QVERIFY(top > 0); // below the top bar
        QTRY_VERIFY2_WITH_TIMEOUT(window("Quillvox")[u"y"].toInt() == top + 40, windows(), 10000);
        const QJsonObject widget = window("Quillvox");
        QCOMPARE(widget[u"wayland"].toBool(), native);
        QCOMPARE(widget[u"x"].toInt(), kWidgetX);
        QCOMPARE(widget[u"width"].toInt(), 340);
        QVERIFY(widget[u"above"].toBool());
        QVERIFY(widget[u"sticky"].toBool());
        const QByteArray stacking = windows(); // bottom to top
        QVERIFY2(stacking.indexOf("\"title\":\"Quillvox\"") > stacking.indexOf("\"title\":\"Editor\""),
                 stacking);

        // The editor kept the keyboard.
        QTRY_VERIFY(!indicator()[u"rect"][u"width"].isUndefined());
        m_editor.process.readAllStandardOutput();
        xdotool({"windowfocus", "--sync", m_shellWindow, "key", "--clearmodifiers", "x"});
        QByteArray typed;
        QTRY_VERIFY((typed += m_editor.process.readAllStandardOutput()).contains("key 88")); // Qt::Key_X
        QVERIFY(m_trayHost->items().isEmpty());
    }

    // The menu the tray would show, read through the shell: idle, then while a narration plays.
    void menuFollowsPlayback()
    {
        QCOMPARE(indicator()[u"icon"].toString(), QStringLiteral("quillvox-symbolic.svg"));
        QCOMPARE(menuLabels(), QStringLiteral("Narrate Selection|Expand Widget|-|Pause Narration (off)|"
                                              "Stop Narration (off)|-|Check for Updates...|About Quillvox|-|"
                                              "Settings...|-|Quit Quillvox"));
        const QString narration =
            QStringLiteral("A narration long enough to look at the menu while it plays. ");
        QCOMPARE(m_app.run({"--speak", narration.repeated(6)}).exitCode, 0);
        QTRY_COMPARE_WITH_TIMEOUT(indicator()[u"icon"].toString(),
                                  QStringLiteral("quillvox-playing-symbolic.svg"), 10000);
        QCOMPARE(menuLabels(), QStringLiteral("Pause Narration|Stop Narration|-|Check for Updates...|"
                                              "About Quillvox|-|Settings...|-|Quit Quillvox"));
        QCOMPARE(m_app.run({"--stop"}).exitCode, 0);
        QTRY_COMPARE(indicator()[u"icon"].toString(), QStringLiteral("quillvox-symbolic.svg"));
    }

    void quitsFromTheMenu()
    {
        QVERIFY(chooseFromMenu("Quit Quillvox"));
        QVERIFY(m_app.process().waitForFinished(10000));
        QTRY_VERIFY(probe("Indicators").isEmpty());
    }

    // A key bound through the extension, pressed on the compositor's keyboard, runs its action; another
    // combination runs nothing. Combinations of our own: the running app may hold its default ones.
    void pressedKeyRunsItsAction()
    {
        // Binding is Quillvox's alone: this test binds as a profile's Quillvox would.
        QVERIFY(QDBusConnection::sessionBus().registerService(
            QStringLiteral("com.vantor.Quillvox.Profile_0123456789")));
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
        m_app.stop();
        m_editor.end(5000);
        // runuser hands SIGTERM on to its program and waits for it; killed, it would leave the program
        // behind.
        const bool shellEnded = m_shell.end();
        m_systemBus.end(5000);
        QVERIFY(shellEnded);
    }
};

QTEST_GUILESS_MAIN(TestGnomeShellSession)
#include "tst_gnomeshellsession.moc"
