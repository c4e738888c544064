// SPDX-License-Identifier: GPL-3.0-or-later
#include "account/KeychainHelper.h"
#include "app/AppDelegate.h"
#include "app/DesktopNotification.h"
#include "app/MprisPlayer.h"
#include "app/RemoteControl.h"
#include "app/SingleInstance.h"
#include "app/StatusMenu.h"
#include "app/StatusMenuState.h"
#include "app/WindowingPlatform.h"
#include "core/AppEvents.h"
#include "core/UserDefaults.h"
#include "platform/null/MemorySecretStore.h"
#include "platform/null/NullAudioSink.h"
#include "platform/null/NullPanelHints.h"
#include "records/HistoryManager.h"
#include "settings/SettingsViewModel.h"
#include "settings/SettingsWindow.h"
#include "speech/NarrationServices.h"
#include "speech/SpeechManager.h"
#include "widget/FloatingWindowController.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QMenu>
#include <QProcess>
#include <QQuickView>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <future>

using namespace std::chrono_literals;

namespace {

using Route = RemoteControl::UrlRoute;

QDBusConnection clientBus()
{
    return QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("client"));
}

// A notification server on the test's bus: it keeps what it was asked to show.
class NotificationServer : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
public:
    QStringList summaries, actions;

public Q_SLOTS:
    uint Notify(const QString &, uint, const QString &, const QString &summary, const QString &,
                const QStringList &actionList, const QVariantMap &, int)
    {
        summaries.append(summary);
        actions = actionList;
        return 7;
    }
};

struct Outcome
{
    int exitCode = -1;
    QString firstErrorLine;
    QByteArray output;
};

// Waits in the event loop, so that an instance in this process can answer the child.
Outcome run(const QStringList &arguments, const QByteArray &input = {})
{
    QProcess process;
    QSignalSpy finished(&process, &QProcess::finished);
    process.start(QStringLiteral(QUILLVOX_EXECUTABLE), arguments);
    process.write(input);
    process.closeWriteChannel();
    if (!finished.wait(30000))
        return {};
    return {process.exitCode(), QString::fromUtf8(process.readAllStandardError()).section(u'\n', 0, 0),
            process.readAllStandardOutput()};
}

class HistoryRecords final : public NarrationRecords
{
public:
    explicit HistoryRecords(HistoryManager &history)
        : m_history(history)
    {}
    void addSession(const QString &, const QString &, double, const QByteArray &) override {}
    QString audioFile(const QUuid &id) const override { return m_history.audioFile(id); }
    void recordUsage(qint64) override {}

private:
    HistoryManager &m_history;
};

} // namespace

class TestAppDelegate : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    int m_files = 0;

    NoSelection m_selection;
    NoAccount m_account;

    std::unique_ptr<UserDefaults> freshDefaults()
    {
        return std::make_unique<UserDefaults>(
            m_dir.filePath(QStringLiteral("defaults%1.conf").arg(++m_files)));
    }

    // On the null sink, with no account; the own key's server (port 9 here) refuses.
    std::unique_ptr<SpeechManager> speech(UserDefaults &defaults, KeychainHelper &keychain,
                                          NarrationRecords *records = nullptr)
    {
        return std::make_unique<SpeechManager>(
            SpeechManager::Services{.defaults = &defaults,
                                    .keychain = &keychain,
                                    .account = &m_account,
                                    .records = records,
                                    .selection = &m_selection,
                                    .audioSink = std::make_unique<NullAudioSink>(),
                                    .serviceOrigin = {},
                                    .openAIOrigin = QUrl("http://127.0.0.1:9"),
                                    .openAIOriginFromEnvironment = true});
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
        QVERIFY2(QDBusConnection::sessionBus().isConnected(), "needs a session bus (dbus-run-session)");
        QVERIFY(clientBus().isConnected());
    }

    // KDE Plasma and GNOME on Wayland, with XWayland at hand, move the app to XWayland, never against the
    // user's own QT_QPA_PLATFORM.
    void windowingPlatform()
    {
        // The desktop, a Wayland session, XWayland at hand, the user's own choice: the platform set.
        const std::tuple<const char *, bool, bool, bool, QByteArray> rows[] = {
            {"GNOME", true, true, false, "xcb"},    {"GNOME", true, false, false, {}},
            {"GNOME", true, true, true, {}},        {"KDE", true, true, false, "xcb"},
            {"neon:kde", true, true, false, "xcb"}, {"sway", true, true, false, {}},
            {"GNOME", false, true, false, {}}};
        for (const auto &[desktop, wayland, xwayland, userChose, expected] : rows)
            QCOMPARE(WindowingPlatform::choose({QString::fromLatin1(desktop), wayland, xwayland, userChose}),
                     expected);
    }

    // The button of a notification runs its action once the server says it was chosen, for that
    // notification only.
    void notificationAction()
    {
        NotificationServer server;
        QDBusConnection bus = clientBus();
        const QString path = u"/org/freedesktop/Notifications"_qs,
                      service = u"org.freedesktop.Notifications"_qs;
        QVERIFY(bus.registerObject(path, &server, QDBusConnection::ExportAllSlots) &&
                bus.registerService(service));
        int chosen = 0;
        showDesktopNotification(u"Quillvox cannot bind its shortcuts"_qs, u"Why."_qs, u"Open Settings"_qs,
                                [&chosen] { ++chosen; });
        QTRY_COMPARE(server.summaries, QStringList{u"Quillvox cannot bind its shortcuts"_qs});
        QCOMPARE(server.actions.value(1), u"Open Settings"_qs);
        QTest::qWait(100);               // the reply with the id arrives
        for (const uint id : {8u, 7u}) { // another application's, then ours
            QDBusMessage signal = QDBusMessage::createSignal(path, service, u"ActionInvoked"_qs);
            bus.send(signal << id << server.actions.value(0));
        }
        QTRY_COMPARE(chosen, 1);
        QTest::qWait(100);
        QCOMPARE(chosen, 1);
        bus.unregisterService(service);
        bus.unregisterObject(path);
    }

    void shouldShowOnboarding()
    {
        // Onboarding completed (-1: never written), a key saved, signed in: whether onboarding shows.
        const std::tuple<int, bool, bool, bool> rows[] = {
            {-1, false, false, true}, {0, true, false, true},  {1, true, false, false},
            {1, false, true, false},  {1, false, false, true},
        };
        for (const auto &[completed, apiKey, accessToken, onboarding] : rows) {
            const auto defaults = freshDefaults();
            if (completed >= 0)
                defaults->setBoolean(u"hasCompletedOnboarding"_qs, completed == 1);
            auto *store = new MemorySecretStore;
            KeychainHelper keychain(u"test"_qs, std::unique_ptr<SecretStore>(store));
            if (apiKey)
                store->insert(u"test"_qs, accountName(KeychainKey::openAIAPIKey), "sk-test");
            if (accessToken)
                store->insert(u"test"_qs, accountName(KeychainKey::accessToken), "token");
            QCOMPARE(AppDelegate(*defaults, keychain).shouldShowOnboarding(), onboarding);
        }
    }

    // Each step posts its notifications in one go ("+" between them) and then lets the event loop run;
    // "navigate:<label>" posts navigateToSettingsSection as a view would, "close" closes the window. Then
    // the section shown and the navigations posted.
    void observers()
    {
        const std::tuple<const char *, SettingsSection, const char *> rows[] = {
            {"openAboutSection openSettingsWindow", SettingsSection::about, ""}, // a second open keeps it
            {"openSettingsWindow openAboutSection", SettingsSection::about, "About"},
            {"openSettingsWindow+navigate:Shortcuts", SettingsSection::shortcuts, "Shortcuts"},
            {"openAboutSection navigate:Nowhere", SettingsSection::about, "Nowhere"},
            {"openSettingsWindow+navigate:History close openSettingsWindow", SettingsSection::history,
             "History"},
            {"navigate:Usage openSettingsWindow", SettingsSection::account, "Usage"}}; // not kept for later
        for (const auto &[steps, shown, navigated] : rows) {
            const auto defaults = freshDefaults();
            KeychainHelper keychain(u"test"_qs, std::make_unique<MemorySecretStore>());
            AppDelegate delegate(*defaults, keychain);
            delegate.addObservers();
            AppEvents &events = AppEvents::shared();
            QSignalSpy navigations(&events, &AppEvents::navigateToSettingsSection);
            const SettingsWindow *window = nullptr;
            for (const QString &step : QString::fromLatin1(steps).split(u' ')) {
                for (const QString &name : step.split(u'+')) {
                    if (name == u"openSettingsWindow")
                        Q_EMIT events.openSettingsWindow();
                    else if (name == u"openAboutSection")
                        Q_EMIT events.openAboutSection();
                    else if (name == u"close")
                        window->window()->close();
                    else
                        Q_EMIT events.navigateToSettingsSection(name.section(u':', 1));
                }
                // Observers answer from the event loop, never inside the post.
                QVERIFY(window || !delegate.settingsWindow());
                QTest::qWait(20);
                QVERIFY(!window || delegate.settingsWindow() == window); // one window for the process's life
                window = delegate.settingsWindow();
                if (step == u"close")
                    QTRY_VERIFY(!window->window()); // released with its QML
            }
            QVERIFY(window);
            QCOMPARE(window->viewModel()->currentSection(), shown);
            QStringList posted;
            for (const QList<QVariant> &signal : std::as_const(navigations))
                posted.append(signal.constFirst().toString());
            QCOMPARE(posted.join(u' '), QString::fromLatin1(navigated));
        }
    }

    // The running instance's channel: which callback URLs are routed, and the profile's bus name.
    void urlRouteAndBusName()
    {
        const std::pair<Route, QStringList> rows[] = {
            {Route::AuthCallback, // the scheme is not checked
             {"quillvox://auth/callback#access_token=a&refresh_token=r", "quillvox://auth/callback?x=1",
              "other://auth/callback"}},
            {Route::PurchaseSuccess, {"quillvox://purchase/success"}},
            {Route::Ignored,
             {"quillvox://AUTH/callback", "quillvox://auth/Callback", "quillvox://auth/callback/",
              "quillvox://auth/error", "quillvox://purchase/cancel", "quillvox:auth/callback", "not a url"}}};
        for (const auto &[route, urls] : rows) {
            for (const QString &url : urls)
                QCOMPARE(RemoteControl::urlRoute(url), route);
        }
        // The default profile has the plain name; any other configuration folder one of its own.
        const std::pair<const char *, QString> folders[] = {{"/home/ann/.config", QString()},
                                                            {"/home/ann/.config/", QString()},
                                                            {"/tmp/profile/config", u"Profile_4722d43b96"_qs},
                                                            {"/tmp/prófile", u"Profile_6fb65a684f"_qs}};
        for (const auto &[folder, profile] : folders) {
            const QString name = SingleInstance::busNameFor(QString::fromUtf8(folder), u"/home/ann"_qs);
            QCOMPARE(name, u"com.vantor.Quillvox"_qs + (profile.isEmpty() ? QString() : u'.' + profile));
            QCOMPARE(SingleInstance::objectPathFor(name),
                     u"/com/vantor/Quillvox"_qs + (profile.isEmpty() ? QString() : u'/' + profile));
        }
    }

    // Requests from another thread, as a second process sends them, while this one's event loop answers:
    // what the handler hears, and the reply; then one instance per profile, its name gone with it.
    void overTheBus()
    {
        QStringList heard;
        auto instance = std::make_unique<SingleInstance>();
        QVERIFY(instance->listen([&](const QString &c, const QString &a) {
            heard.append(c + u'|' + a);
            return QJsonObject{{u"ok"_qs, true}};
        }));
        // Each action, and an unknown one: what the handler hears, the reply's ok. A callback URL:
        // tst_keychainkeyring (a sign-in over the bus); activation, speaking, the status and refusals:
        // commands, from a process of their own.
        QList<std::pair<QString, bool>> rows = {{u"quit"_qs, false}};
        for (const QString &action : SingleInstance::actionNames())
            rows.append({action, true});
        for (const auto &[command, ok] : std::as_const(rows)) {
            heard.clear();
            std::future<std::optional<QJsonObject>> call = std::async(
                std::launch::async, [c = command] { return SingleInstance::send(c, {}, 5000, clientBus()); });
            QTRY_VERIFY(call.wait_for(0s) == std::future_status::ready);
            const std::optional<QJsonObject> reply = call.get();
            QVERIFY(reply.has_value());
            QCOMPARE(heard, ok ? QStringList{command + u'|'} : QStringList());
            QCOMPARE(reply->value(u"ok"_qs).toBool(), ok);
        }
        SingleInstance second(clientBus());
        QVERIFY(!second.listen([](const QString &, const QString &) { return QJsonObject(); }));
        instance.reset(); // the name goes with it
        QCOMPARE(SingleInstance::send(u"toggle"_qs, {}, 5000, clientBus()), std::nullopt);
    }

    // The tray menu: "Expand Widget" only while the widget is collapsed, and "About Quillvox" opening About
    // (the icon and the menu of a running app: tst_tray).
    void statusMenu()
    {
        const std::unique_ptr<UserDefaults> defaults = freshDefaults();
        KeychainHelper keychain(u"test"_qs, std::make_unique<MemorySecretStore>());
        const auto speech = this->speech(*defaults, keychain);
        FloatingWindowController widget(
            {.speech = speech.get(), .hints = std::make_unique<NullPanelHints>(true)});
        StatusMenu menu(*speech, m_selection, &widget);
        const auto action = [&menu](const char *text) {
            const QList<QAction *> all = menu.menu()->actions();
            return all.value(
                std::ranges::find_if(all, [&](QAction *a) { return a->text() == QLatin1String(text); }) -
                all.begin());
        };
        QVERIFY(action("Expand Widget") && action("About Quillvox"));
        QVERIFY(action("Expand Widget")->isVisible());
        widget.viewModel()->setExpanded(true);
        QVERIFY(!action("Expand Widget")->isVisible());
        QSignalSpy about(&AppEvents::shared(), &AppEvents::openAboutSection);
        QSignalSpy settings(&AppEvents::shared(), &AppEvents::openSettingsWindow);
        action("About Quillvox")->trigger();
        QCOMPARE(std::pair(about.size(), settings.size()), (std::pair<qsizetype, qsizetype>(1, 0)));
    }

    // State: which of playing, processing, content, expanded are true. Items: "narrate" and "expand" where
    // offered, "|" for the separator after them where shown, "pause" and "stop" where enabled. A fresh start
    // and playing with the widget collapsed: the menus tst_tray reads.
    void statusMenuAndMediaStatus()
    {
        const char *const generating = "Generating...", *const pause = "Pause Narration";
        for (const auto &[state, items, pauseLabel] :
             {std::tuple("expanded", "narrate |", pause), // fresh
              {"processing", "stop", generating},
              {"processing content", "stop", generating}, // over old audio
              {"processing expanded", "stop", generating},
              {"playing content expanded", "pause stop", pause},
              {"content", "narrate expand | pause stop", pause}, // paused
              {"content expanded", "narrate | pause stop", pause}}) {
            const QString flags = QString::fromLatin1(state);
            const StatusMenuState menu =
                StatusMenuState::compute(flags.contains(u"playing"), flags.contains(u"processing"),
                                         flags.contains(u"content"), flags.contains(u"expanded"));
            QStringList shown;
            for (const auto &[offered, item] : {std::pair(menu.narrateOffered, "narrate"),
                                                {menu.expandOffered, "expand"},
                                                {menu.narrateSeparatorShown, "|"},
                                                {menu.pauseEnabled, "pause"},
                                                {menu.stopEnabled, "stop"}})
                if (offered)
                    shown.append(QString::fromLatin1(item));
            QCOMPARE(shown.join(u' '), QString::fromLatin1(items));
            QCOMPARE(menu.pauseLabel, QString::fromLatin1(pauseLabel));
        }
        // Processing, playing, content, at the end: the status media controls show.
        const std::tuple<bool, bool, bool, bool, const char *> rows[] = {
            {false, false, false, false, "Stopped"}, // nothing loaded
            {true, false, true, false, "Playing"},   // generating
            {true, false, false, false, "Playing"},  // generating, asking the service
            {false, true, true, false, "Playing"},   {false, false, true, false, "Paused"},
            {false, false, true, true, "Stopped"}}; // played to the end
        for (const auto &[processing, playing, content, atEnd, status] : rows)
            QCOMPARE(MprisPlayer::playbackStatus(processing, playing, content, atEnd),
                     QString::fromLatin1(status));
    }

    // Each narration, replay and voice sample is a track of its own, named by its text and by the voice
    // that speaks it, whatever is selected now; with nothing loaded there is no track and no seeking.
    void mprisTrackPerNarrationReplayAndSample()
    {
        QTemporaryDir dir;
        UserDefaults defaults(dir.filePath("q.conf"));
        HistoryManager history(defaults, dir.filePath("History"));
        const QString kept = QStringLiteral("A narration kept in the history, replayed later from there.");
        history.addSession(kept, QStringLiteral("cedar"), 1, QByteArray(48000, 0));
        HistoryRecords records(history);
        KeychainHelper keychain("test", std::make_unique<MemorySecretStore>());
        QVERIFY(keychain.save("sk-test\n", KeychainKey::openAIAPIKey));
        const std::unique_ptr<SpeechManager> made = this->speech(defaults, keychain, &records);
        SpeechManager &speech = *made;
        MprisPlayer player(speech, &history, QDBusConnection(QStringLiteral("no bus")));
        const auto metadata = [&] { return player.playerProperties().value("Metadata").toMap(); };
        const auto trackId = [&] {
            return metadata().value("mpris:trackid").value<QDBusObjectPath>().path();
        };
        const auto title = [&] { return metadata().value("xesam:title").toString(); };
        const auto artist = [&] { return metadata().value("xesam:artist").toStringList().join(u','); };
        const QString noTrack = QStringLiteral("/org/mpris/MediaPlayer2/TrackList/NoTrack");
        QCOMPARE(trackId(), noTrack);
        QCOMPARE(player.playerProperties().value("CanSeek").toBool(), false);

        const QString text = QStringLiteral(
            "This narration is longer than a title,   and only its first sixty characters name it.");
        speech.setSelectedVoice(QStringLiteral("marin"));
        speech.speak(text);
        QVERIFY(speech.isProcessing());
        speech.setSelectedVoice(QStringLiteral("echo"));
        QTRY_COMPARE(title(), QStringLiteral("This narration is longer than a title, and only its first si"));
        QCOMPARE(artist(), "marin");
        const QString narration = trackId();
        QVERIFY(narration != noTrack);

        speech.playFromHistory(history.sessions().constFirst().id);
        QTRY_COMPARE(title(), kept.left(60));
        QCOMPARE(artist(), "cedar");
        QCOMPARE(metadata().value("mpris:length").toLongLong(), 1000000);
        const QString replay = trackId();
        QVERIFY(replay != narration && replay != noTrack);

        speech.playVoicePreview(QStringLiteral("alloy"));
        QTRY_COMPARE(artist(), "alloy");
        QVERIFY(trackId() != replay && trackId() != narration && trackId() != noTrack);

        speech.stop();
        QCOMPARE(trackId(), noTrack);
        QSignalSpy seeks(&speech, &SpeechManager::seekPerformed);
        player.seekTo(0.5);
        QTest::qWait(150); // past the seek's debounce
        QCOMPARE(seeks.count(), 0);
    }

    // The executable run as a user runs it, with no instance or with one owning this profile's bus name.
    // What reaches the running instance and what the user is told: help and version win over anything,
    // Qt's options are Qt's, "-" is standard input, and a refusal is one line with the instance's reason.
    void commands()
    {
        // The instance: none, ok, refuse, hang. Printed: the first line of standard error, else of standard
        // output; a start's own are not looked at ("*").
        struct Row
        {
            QStringList arguments;
            QByteArray input;
            QString instance;
            int exitCode;
            const char *printed;
            QStringList heard;
        };
        QList<Row> rows;
        // Wrong arguments: the same refusal whether an instance runs or not, and it hears nothing.
        for (const char *instance : {"none", "ok"}) {
            for (const auto &[arguments, error] : std::initializer_list<std::pair<QStringList, const char *>>{
                     {{"--bogus"}, "quillvox: Unknown option 'bogus'."},
                     {{"hello"}, "quillvox: Unexpected argument 'hello'."},
                     {{"--speak", " "}, "quillvox: Nothing to narrate: the text is empty."},
                     {{"--speed", "3"}, "quillvox: --speed goes with --speak."},
                     {{"--speak", "hi", "--speed", "3"},
                      "quillvox: Unsupported speed \"3\". Speeds: 0.5, 1.0, 1.25, 1.5, 2.0"},
                     {{"--speak", "hi", "--voice", "nosuch"},
                      "quillvox: Unknown voice \"nosuch\". Voices: marin, cedar, alloy, echo, fable, nova, "
                      "onyx, shimmer"},
                     {{"--toggle", "--stop"}, "quillvox: Give one of --toggle, --stop at a time."},
                     {{"--toggle", "quillvox://auth/callback"},
                      "quillvox: Unexpected argument 'quillvox://auth/callback'."},
                     {{"--wait", "--toggle"}, "quillvox: --wait goes with --speak."}})
                rows.append({arguments, {}, QString::fromLatin1(instance), 1, error, {}});
        }
        const QByteArray version = "Quillvox " QUILLVOX_VERSION;
        const char *const usage = "Usage: quillvox [options] [url]",
                          *const refused = "quillvox: No key, and not signed in.";
        rows += QList<Row>{
            {{"--speak", "x", "--help"}, {}, "ok", 0, usage, {}}, // help and version win over anything
            {{"--toggle", "--stop", "-h"}, {}, "ok", 0, usage, {}},
            {{"--bogus", "--version"}, {}, "none", 0, version.constData(), {}},
            {{"-platform", "offscreen", "-style=fusion", "--display", ":9", "--toggle"},
             {},
             "ok",
             0,
             "",
             {"toggle|"}}, // Qt's options are Qt's
            {{"-platform", "offscreen", "--status"}, {}, "none", 2, "Quillvox is not running.", {}},
            {{"--speak", "-"}, "Read from a pipe.\n", "ok", 0, "", {"speak|Read from a pipe.\n"}},
            {{"--speak", "-"}, " \n", "ok", 1, "quillvox: Nothing to narrate: the text is empty.", {}},
            {{"--speak", "-"}, "\xff\xfe", "ok", 1, "quillvox: The text on standard input is not UTF-8.", {}},
            {{"--speak", "Hello."}, {}, "refuse", 1, refused, {"speak|Hello."}},
            {{"--narrate-selection"}, {}, "refuse", 1, refused, {"narrate-selection|"}},
            {{"--status"}, {}, "ok", 0, R"({"backend":"none"})", {"status|"}},
            {{"--status"}, {}, "refuse", 1, refused, {"status|"}},
            {{"--toggle"}, {}, "hang", 1, "quillvox: Quillvox is running but not answering.", {"toggle|"}},
            // A plain start asks for the window and passes on the launcher's leave to bring one forward;
            // a login start leaves the running one alone.
            {{}, {}, "ok", 0, "*", {"startup-id|launcher-42_TIME1234", "activate|"}},
            {{"--autostart"}, {}, "ok", 0, "*", {"status|"}}};

        for (const Row &row : std::as_const(rows)) {
            std::unique_ptr<SingleInstance> running;
            QStringList commands;
            if (row.instance != u"none") {
                running = std::make_unique<SingleInstance>();
                QVERIFY(running->listen([&](const QString &command, const QString &argument) {
                    commands.append(command + u'|' + argument);
                    if (row.instance == u"hang")
                        QThread::sleep(6);
                    return QJsonObject{
                        {u"ok"_qs, row.instance != u"refuse"},
                        {u"error"_qs, u"No key, and not signed in."_qs}, // read only on a refusal
                        {u"status"_qs, QJsonObject{{u"backend"_qs, "none"}}}};
                }));
                connect(running.get(), &SingleInstance::startupIdReceived, this, [&](const QByteArray &id) {
                    commands.append(u"startup-id|"_qs + QString::fromLatin1(id));
                });
            }
            qputenv("DESKTOP_STARTUP_ID", "launcher-42_TIME1234");
            const Outcome outcome = run(row.arguments, row.input);
            qunsetenv("DESKTOP_STARTUP_ID");
            const QString context = row.arguments.join(u' ') + u" with instance " + row.instance;
            QVERIFY2(outcome.exitCode == row.exitCode,
                     qPrintable(context + u" exited " + QString::number(outcome.exitCode)));
            if (qstrcmp(row.printed, "*"))
                QCOMPARE(outcome.firstErrorLine.isEmpty()
                             ? QString::fromUtf8(outcome.output).section(u'\n', 0, 0)
                             : outcome.firstErrorLine,
                         QString::fromUtf8(row.printed));
            QVERIFY2(commands == row.heard, qPrintable(context + u": " + commands.join(u',')));
        }
    }
};

QTEST_MAIN(TestAppDelegate)
#include "tst_appdelegate.moc"
