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

Q_DECLARE_METATYPE(SettingsSection)

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
    QStringList summaries;
    QStringList actions;

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
    QStringList m_heard;
    QJsonObject m_reply;
    std::unique_ptr<SingleInstance> m_instance;

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
    void windowingPlatform_data()
    {
        QTest::addColumn<QString>("desktop");
        QTest::addColumn<bool>("wayland");
        QTest::addColumn<bool>("xwayland");
        QTest::addColumn<bool>("userChose");
        QTest::addColumn<QByteArray>("expected");
        QTest::newRow("GNOME") << "GNOME" << true << true << false << QByteArray("xcb");
        QTest::newRow("GNOME without XWayland") << "GNOME" << true << false << false << QByteArray();
        QTest::newRow("GNOME, user's choice") << "GNOME" << true << true << true << QByteArray();
        QTest::newRow("KDE") << "KDE" << true << true << false << QByteArray("xcb");
        QTest::newRow("KDE neon") << "neon:kde" << true << true << false << QByteArray("xcb");
        QTest::newRow("sway") << "sway" << true << true << false << QByteArray();
        QTest::newRow("X11 session") << "GNOME" << false << true << false << QByteArray();
    }
    void windowingPlatform()
    {
        QFETCH(QString, desktop);
        QFETCH(bool, wayland);
        QFETCH(bool, xwayland);
        QFETCH(bool, userChose);
        QTEST(WindowingPlatform::choose({desktop, wayland, xwayland, userChose}), "expected");
    }

    // The button of a notification runs its action once the server says it was chosen, for that
    // notification only.
    void notificationAction()
    {
        NotificationServer server;
        QDBusConnection bus = clientBus();
        QVERIFY(bus.registerObject(QStringLiteral("/org/freedesktop/Notifications"), &server,
                                   QDBusConnection::ExportAllSlots));
        QVERIFY(bus.registerService(QStringLiteral("org.freedesktop.Notifications")));
        int chosen = 0;
        showDesktopNotification(QStringLiteral("Quillvox cannot bind its shortcuts"), QStringLiteral("Why."),
                                QStringLiteral("Open Settings"), [&chosen] { ++chosen; });
        QTRY_COMPARE(server.summaries, QStringList{QStringLiteral("Quillvox cannot bind its shortcuts")});
        QCOMPARE(server.actions.value(1), QStringLiteral("Open Settings"));
        QTest::qWait(100); // the reply with the id arrives
        const auto invoke = [&](uint id) {
            QDBusMessage signal = QDBusMessage::createSignal(QStringLiteral("/org/freedesktop/Notifications"),
                                                             QStringLiteral("org.freedesktop.Notifications"),
                                                             QStringLiteral("ActionInvoked"));
            signal << id << server.actions.value(0);
            bus.send(signal);
        };
        invoke(8); // another application's
        invoke(7);
        QTRY_COMPARE(chosen, 1);
        QTest::qWait(100);
        QCOMPARE(chosen, 1);
        bus.unregisterService(QStringLiteral("org.freedesktop.Notifications"));
        bus.unregisterObject(QStringLiteral("/org/freedesktop/Notifications"));
    }

    void shouldShowOnboarding()
    {
        // Onboarding completed (-1: never written), a key saved, signed in: whether onboarding shows.
        const std::tuple<int, bool, bool, bool> rows[] = {{-1, false, false, true},
                                                          {0, true, false, true},
                                                          {1, true, false, false},
                                                          {1, false, true, false},
                                                          {1, false, false, true}};
        for (const auto &[completed, apiKey, accessToken, onboarding] : rows) {
            const auto defaults = freshDefaults();
            if (completed >= 0)
                defaults->setBoolean(QStringLiteral("hasCompletedOnboarding"), completed == 1);
            auto *store = new MemorySecretStore;
            KeychainHelper keychain(QStringLiteral("test"), std::unique_ptr<SecretStore>(store));
            if (apiKey)
                store->insert(QStringLiteral("test"), accountName(KeychainKey::openAIAPIKey), "sk-test");
            if (accessToken)
                store->insert(QStringLiteral("test"), accountName(KeychainKey::accessToken), "token");
            QCOMPARE(AppDelegate(*defaults, keychain).shouldShowOnboarding(), onboarding);
        }
    }

    // Each step posts its notifications in one go ("+" between them) and then lets the event loop run.
    // "navigate:<label>" posts navigateToSettingsSection as a view would.
    void observers_data()
    {
        QTest::addColumn<QStringList>("steps");
        QTest::addColumn<SettingsSection>("shown");
        QTest::addColumn<QStringList>("navigations");

        const auto row = [](const char *name, const char *steps, SettingsSection shown,
                            const char *navigated) {
            QTest::newRow(name) << QString::fromLatin1(steps).split(u' ') << shown
                                << QString::fromLatin1(navigated).split(u' ', Qt::SkipEmptyParts);
        };
        row("second open keeps the section", "openAboutSection openSettingsWindow", SettingsSection::about,
            "");
        row("about with the window open", "openSettingsWindow openAboutSection", SettingsSection::about,
            "About");
        row("open on a section", "openSettingsWindow+navigate:Shortcuts", SettingsSection::shortcuts,
            "Shortcuts");
        row("an earlier navigation is not kept", "navigate:Usage openSettingsWindow",
            SettingsSection::account, "Usage");
    }

    void observers()
    {
        QFETCH(QStringList, steps);

        const auto defaults = freshDefaults();
        KeychainHelper keychain(QStringLiteral("test"), std::make_unique<MemorySecretStore>());
        AppDelegate delegate(*defaults, keychain);
        delegate.addObservers();
        AppEvents &events = AppEvents::shared();
        QSignalSpy navigations(&events, &AppEvents::navigateToSettingsSection);

        const SettingsWindow *window = nullptr;
        for (const QString &step : std::as_const(steps)) {
            for (const QString &name : step.split(u'+')) {
                if (name == u"openSettingsWindow")
                    Q_EMIT events.openSettingsWindow();
                else if (name == u"openAboutSection")
                    Q_EMIT events.openAboutSection();
                else
                    Q_EMIT events.navigateToSettingsSection(name.section(u':', 1));
            }
            // Observers answer from the event loop, never inside the post.
            if (!window)
                QVERIFY(!delegate.settingsWindow());
            QTest::qWait(20);
            if (window)
                QCOMPARE(delegate.settingsWindow(), window); // one window for the life of the process
            window = delegate.settingsWindow();
        }

        QVERIFY(window);
        QTEST(window->viewModel()->currentSection(), "shown");
        QStringList posted;
        for (const QList<QVariant> &signal : std::as_const(navigations))
            posted.append(signal.constFirst().toString());
        QTEST(posted, "navigations");
    }

    // The running instance's channel: which callback URLs are routed, the profile's bus name, and requests
    // crossing a real (private) session bus from a connection of their own to the instance's handler.
    void urlRoute()
    {
        const std::pair<const char *, Route> rows[] = {
            {"quillvox://auth/callback#access_token=a&refresh_token=r", Route::AuthCallback},
            {"quillvox://auth/callback?x=1", Route::AuthCallback},
            {"other://auth/callback", Route::AuthCallback}, // the scheme is not checked
            {"quillvox://purchase/success", Route::PurchaseSuccess},
            {"quillvox://AUTH/callback", Route::Ignored},
            {"quillvox://auth/Callback", Route::Ignored},
            {"quillvox://auth/callback/", Route::Ignored},
            {"quillvox://auth/error", Route::Ignored},
            {"quillvox://purchase/cancel", Route::Ignored},
            {"quillvox:auth/callback", Route::Ignored},
            {"not a url", Route::Ignored}};
        for (const auto &[url, route] : rows)
            QCOMPARE(RemoteControl::urlRoute(QString::fromLatin1(url)), route);
    }

    // The default profile has the plain name; any other configuration folder one of its own.
    void busName()
    {
        const std::pair<const char *, QString> rows[] = {
            {"/home/ann/.config", QString()},
            {"/home/ann/.config/", QString()},
            {"/tmp/profile/config", QStringLiteral("Profile_4722d43b96")},
            {"/tmp/prófile", QStringLiteral("Profile_6fb65a684f")}};
        for (const auto &[folder, profile] : rows) {
            const QString name =
                SingleInstance::busNameFor(QString::fromUtf8(folder), QStringLiteral("/home/ann"));
            QCOMPARE(name, QStringLiteral("com.vantor.Quillvox") +
                               (profile.isEmpty() ? QString() : u'.' + profile));
            QCOMPARE(SingleInstance::objectPathFor(name),
                     QStringLiteral("/com/vantor/Quillvox") +
                         (profile.isEmpty() ? QString() : u'/' + profile));
        }
    }

    void overTheBus_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<QString>("argument");
        QTest::addColumn<QStringList>("heard");
        QTest::addColumn<bool>("ok");
        for (const QString &action : SingleInstance::actionNames())
            QTest::newRow(qPrintable(action)) << action << QString() << QStringList{action + u'|'} << true;
        QTest::newRow("activate") << "activate" << QString() << QStringList{"activate|"} << true;
        QTest::newRow("open") << "open-url"
                              << "quillvox://auth/callback#access_token=t"
                              << QStringList{"open-url|quillvox://auth/callback#access_token=t"} << true;
        QTest::newRow("speak") << "speak"
                               << "Hello there." << QStringList{"speak|Hello there."} << true;
        QTest::newRow("status") << "status" << QString() << QStringList{"status|"} << true;
        QTest::newRow("unknown action") << "quit" << QString() << QStringList() << false;
        QTest::newRow("handler refuses") << "toggle"
                                         << "refuse" << QStringList{"toggle|"} << false;
    }

    void overTheBus()
    {
        QFETCH(QString, command);
        QFETCH(QString, argument);
        QFETCH(bool, ok);

        m_heard.clear();
        m_reply = QJsonObject{{QStringLiteral("ok"), argument != u"refuse"},
                              {QStringLiteral("status"), QJsonObject{{QStringLiteral("isPlaying"), true}}}};
        if (!m_instance) {
            m_instance = std::make_unique<SingleInstance>();
            QVERIFY(m_instance->listen([this](const QString &c, const QString &a) {
                m_heard.append(c + u'|' + a);
                return m_reply;
            }));
        }
        // From another thread, as a second process would: this one's event loop answers meanwhile.
        std::future<std::optional<QJsonObject>> call = std::async(
            std::launch::async, [&] { return SingleInstance::send(command, argument, 5000, clientBus()); });
        QTRY_VERIFY(call.wait_for(std::chrono::seconds(0)) == std::future_status::ready);
        const std::optional<QJsonObject> reply = call.get();
        QVERIFY(reply.has_value());
        QTEST(m_heard, "heard");
        QCOMPARE(reply->value(QStringLiteral("ok")).toBool(), ok);
        if (command == u"status")
            QCOMPARE(reply->value(QStringLiteral("status")).toObject(),
                     m_reply.value(QStringLiteral("status")));
    }

    void oneInstancePerProfile()
    {
        QVERIFY(m_instance);
        SingleInstance second(clientBus());
        QVERIFY(!second.listen([](const QString &, const QString &) { return QJsonObject(); }));

        m_instance.reset(); // the name goes with it
        QCOMPARE(SingleInstance::send(QStringLiteral("toggle"), {}, 5000, clientBus()), std::nullopt);
    }

    // The tray menu: "Expand Widget" only while the widget is collapsed, and "About Quillvox" opening About
    // (the icon and the menu of a running app: tst_tray).
    void statusMenu()
    {
        const std::unique_ptr<UserDefaults> defaults = freshDefaults();
        NoSelection selection;
        NoAccount account;
        KeychainHelper keychain(QStringLiteral("test"), std::make_unique<MemorySecretStore>());
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
            const QList<QAction *> actions = menu.menu()->actions();
            const auto found = std::find_if(actions.begin(), actions.end(),
                                            [text](QAction *a) { return a->text() == QLatin1String(text); });
            return found == actions.end() ? nullptr : *found;
        };
        QVERIFY(action("Expand Widget") && action("About Quillvox"));
        QVERIFY(action("Expand Widget")->isVisible());
        widget.viewModel()->setExpanded(true);
        QVERIFY(!action("Expand Widget")->isVisible());

        QSignalSpy about(&AppEvents::shared(), &AppEvents::openAboutSection);
        QSignalSpy settings(&AppEvents::shared(), &AppEvents::openSettingsWindow);
        action("About Quillvox")->trigger();
        QCOMPARE(about.size(), 1);
        QCOMPARE(settings.size(), 0);
    }
};

QTEST_MAIN(TestAppDelegate)
#include "tst_appdelegate.moc"
