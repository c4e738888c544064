// SPDX-License-Identifier: GPL-3.0-or-later
#include "account/KeychainHelper.h"
#include "app/AppDelegate.h"
#include "app/DesktopNotification.h"
#include "app/RemoteControl.h"
#include "app/SingleInstance.h"
#include "app/StatusMenu.h"
#include "app/WindowingPlatform.h"
#include "core/AppEvents.h"
#include "core/UserDefaults.h"
#include "platform/null/MemorySecretStore.h"
#include "platform/null/NullAudioSink.h"
#include "platform/null/NullPanelHints.h"
#include "settings/SettingsViewModel.h"
#include "settings/SettingsWindow.h"
#include "speech/NarrationServices.h"
#include "speech/SpeechManager.h"
#include "widget/FloatingWindowController.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QMenu>
#include <QQuickWindow>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

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

} // namespace

class TestAppDelegate : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    int m_files = 0;

    std::unique_ptr<UserDefaults> freshDefaults()
    {
        return std::make_unique<UserDefaults>(
            m_dir.filePath(QStringLiteral("defaults%1.conf").arg(++m_files)));
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
    // "navigate:<label>" posts navigateToSettingsSection as a view would. Then the section shown and the
    // navigations posted.
    void observers()
    {
        const std::tuple<const char *, SettingsSection, const char *> rows[] = {
            {"openAboutSection openSettingsWindow", SettingsSection::about, ""}, // a second open keeps it
            {"openSettingsWindow openAboutSection", SettingsSection::about, "About"},
            {"openSettingsWindow+navigate:Shortcuts", SettingsSection::shortcuts, "Shortcuts"},
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
                    else
                        Q_EMIT events.navigateToSettingsSection(name.section(u':', 1));
                }
                // Observers answer from the event loop, never inside the post.
                QVERIFY(window || !delegate.settingsWindow());
                QTest::qWait(20);
                QVERIFY(!window || delegate.settingsWindow() == window); // one window for the process's life
                window = delegate.settingsWindow();
            }
            QVERIFY(window);
            QCOMPARE(window->viewModel()->currentSection(), shown);
            QStringList posted;
            for (const QList<QVariant> &signal : std::as_const(navigations))
                posted.append(signal.constFirst().toString());
            QCOMPARE(posted.join(u' '), QString::fromLatin1(navigated));
        }
    }

    // The running instance's channel: which callback URLs are routed, the profile's bus name, and requests
    // crossing a real (private) session bus from a connection of their own to the instance's handler.
    void urlRoute()
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
    }

    // The default profile has the plain name; any other configuration folder one of its own.
    void busName()
    {
        const std::pair<const char *, QString> rows[] = {{"/home/ann/.config", QString()},
                                                         {"/home/ann/.config/", QString()},
                                                         {"/tmp/profile/config", u"Profile_4722d43b96"_qs},
                                                         {"/tmp/prófile", u"Profile_6fb65a684f"_qs}};
        for (const auto &[folder, profile] : rows) {
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
        // The command, its argument, what the handler hears ("": nothing), the reply's ok. Activation,
        // speaking, the status and refusals: tst_commandline, from a process of their own.
        QList<std::tuple<QString, QString, QString, bool>> rows = {
            {u"open-url"_qs, u"quillvox://auth/callback#access_token=t"_qs,
             u"open-url|quillvox://auth/callback#access_token=t"_qs, true},
            {u"quit"_qs, {}, {}, false}}; // an unknown action
        for (const QString &action : SingleInstance::actionNames())
            rows.append({action, {}, action + u'|', true});
        for (const auto &[command, sent, expected, ok] : std::as_const(rows)) {
            heard.clear();
            std::future<std::optional<QJsonObject>> call =
                std::async(std::launch::async,
                           [c = command, a = sent] { return SingleInstance::send(c, a, 5000, clientBus()); });
            QTRY_VERIFY(call.wait_for(0s) == std::future_status::ready);
            const std::optional<QJsonObject> reply = call.get();
            QVERIFY(reply.has_value());
            QCOMPARE(heard, QStringList(expected).filter(u"|"_qs));
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
        NoSelection selection;
        NoAccount account;
        KeychainHelper keychain(u"test"_qs, std::make_unique<MemorySecretStore>());
        SpeechManager::Services services;
        services.defaults = defaults.get();
        services.keychain = &keychain;
        services.selection = &selection;
        services.account = &account;
        services.audioSink = std::make_unique<NullAudioSink>(NullAudioSink::Clock::Manual);
        SpeechManager speech(std::move(services));
        FloatingWindowController widget({.speech = &speech, .hints = std::make_unique<NullPanelHints>(true)});
        StatusMenu menu(speech, selection, &widget);
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
};

QTEST_MAIN(TestAppDelegate)
#include "tst_appdelegate.moc"
