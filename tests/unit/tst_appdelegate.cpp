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
    void windowingPlatform_data()
    {
        QTest::addColumn<QString>("desktop");
        QTest::addColumn<bool>("wayland");
        QTest::addColumn<bool>("xwayland");
        QTest::addColumn<bool>("userChose");
        QTest::addColumn<QByteArray>("expected");
        QTest::newRow("plasma") << "KDE" << true << true << false << QByteArray("xcb");
        QTest::newRow("plasma, listed second") << "neon:kde" << true << true << false << QByteArray("xcb");
        QTest::newRow("plasma without xwayland") << "KDE" << true << false << false << QByteArray();
        QTest::newRow("plasma, user's choice") << "KDE" << true << true << true << QByteArray();
        QTest::newRow("plasma on x11") << "KDE" << false << true << false << QByteArray();
        QTest::newRow("gnome") << "ubuntu:GNOME" << true << true << false << QByteArray();
        QTest::newRow("sway") << "sway" << true << true << false << QByteArray();
    }
    void windowingPlatform()
    {
        QFETCH(QString, desktop);
        QFETCH(bool, wayland);
        QFETCH(bool, xwayland);
        QFETCH(bool, userChose);
        QTEST(WindowingPlatform::choose({desktop, wayland, xwayland, userChose}), "expected");
    }

    void shouldShowOnboarding_data()
    {
        QTest::addColumn<QVariant>("completed"); // invalid: never written
        QTest::addColumn<bool>("apiKey");
        QTest::addColumn<bool>("accessToken");
        QTest::addColumn<bool>("onboarding");

        QTest::newRow("first start") << QVariant() << false << false << true;
        QTest::newRow("not finished, key saved") << QVariant(false) << true << false << true;
        QTest::newRow("finished, own key") << QVariant(true) << true << false << false;
        QTest::newRow("finished, signed in") << QVariant(true) << false << true << false;
        QTest::newRow("finished, credentials gone") << QVariant(true) << false << false << true;
    }

    void shouldShowOnboarding()
    {
        QFETCH(QVariant, completed);
        QFETCH(bool, apiKey);
        QFETCH(bool, accessToken);

        const auto defaults = freshDefaults();
        if (completed.isValid())
            defaults->setBoolean(QStringLiteral("hasCompletedOnboarding"), completed.toBool());
        auto *store = new MemorySecretStore;
        KeychainHelper keychain(QStringLiteral("test"), std::unique_ptr<SecretStore>(store));
        if (apiKey)
            store->insert(QStringLiteral("test"), accountName(KeychainKey::openAIAPIKey), "sk-test");
        if (accessToken)
            store->insert(QStringLiteral("test"), accountName(KeychainKey::accessToken), "token");

        AppDelegate delegate(*defaults, keychain);
        QTEST(delegate.shouldShowOnboarding(), "onboarding");
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
