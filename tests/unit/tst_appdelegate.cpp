// SPDX-License-Identifier: GPL-3.0-or-later
#include "account/KeychainHelper.h"
#include "app/AppDelegate.h"
#include "app/WindowingPlatform.h"
#include "core/AppEvents.h"
#include "core/UserDefaults.h"
#include "platform/null/MemorySecretStore.h"
#include "settings/SettingsViewModel.h"
#include "settings/SettingsWindow.h"

#include <QQuickWindow>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

Q_DECLARE_METATYPE(SettingsSection)

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
    }

    // Only KDE Plasma on Wayland with XWayland at hand moves the app to XWayland, and never against the
    // user's own QT_QPA_PLATFORM.
    void windowingPlatform()
    {
        // Desktop, Wayland, XWayland at hand, the user's own choice: the platform asked for.
        const std::tuple<const char *, bool, bool, bool, QByteArray> rows[] = {
            {"KDE", true, true, false, "xcb"}, {"neon:kde", true, true, false, "xcb"},
            {"KDE", true, false, false, {}},   {"KDE", true, true, true, {}},
            {"KDE", false, true, false, {}},   {"ubuntu:GNOME", true, true, false, {}},
            {"sway", true, true, false, {}}};
        for (const auto &[desktop, wayland, xwayland, userChose, expected] : rows)
            QCOMPARE(WindowingPlatform::choose({QString::fromLatin1(desktop), wayland, xwayland, userChose}),
                     expected);
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

        QTest::newRow("settings") << QStringList{QStringLiteral("openSettingsWindow")}
                                  << SettingsSection::account << QStringList();
        QTest::newRow("about") << QStringList{QStringLiteral("openAboutSection")} << SettingsSection::about
                               << QStringList();
        QTest::newRow("second open keeps the section")
            << QStringList{QStringLiteral("openAboutSection"), QStringLiteral("openSettingsWindow")}
            << SettingsSection::about << QStringList();
        QTest::newRow("about with the window open")
            << QStringList{QStringLiteral("openSettingsWindow"), QStringLiteral("openAboutSection")}
            << SettingsSection::about << QStringList{QStringLiteral("About")};
        QTest::newRow("open on a section")
            << QStringList{QStringLiteral("openSettingsWindow+navigate:Shortcuts")}
            << SettingsSection::shortcuts << QStringList{QStringLiteral("Shortcuts")};
        QTest::newRow("an earlier navigation is not kept")
            << QStringList{QStringLiteral("navigate:Usage"), QStringLiteral("openSettingsWindow")}
            << SettingsSection::account << QStringList{QStringLiteral("Usage")};
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
};

QTEST_MAIN(TestAppDelegate)
#include "tst_appdelegate.moc"
