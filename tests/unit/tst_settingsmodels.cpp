// SPDX-License-Identifier: GPL-3.0-or-later
#include "account/AuthManager.h"
#include "account/BalanceManager.h"
#include "account/KeychainHelper.h"
#include "core/AppEvents.h"
#include "core/UserDefaults.h"
#include "platform/null/MemorySecretStore.h"
#include "platform/null/NullAudioSink.h"
#include "platform/null/input/NullGlobalHotKeys.h"
#include "records/HistoryManager.h"
#include "records/UsageManager.h"
#include "records/UsageStats.h"
#include "settings/AboutSettingsModel.h"
#include "settings/ApiKeySettingsModel.h"
#include "settings/SettingsViewModel.h"
#include "settings/SettingsWindow.h"
#include "settings/ShortcutSettingsModel.h"
#include "settings/UsageSettingsModel.h"
#include "shortcuts/HotkeyManager.h"
#include "shortcuts/NarrationControls.h"
#include "speech/NarrationServices.h"
#include "speech/OpenAIServer.h"
#include "speech/SpeechManager.h"

#include <QFile>
#include <QQuickItem>
#include <QQuickView>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using Verdict = OpenAIServer::Verdict;
Q_DECLARE_METATYPE(Verdict::Kind)
Q_DECLARE_METATYPE(SettingsSection)
Q_DECLARE_METATYPE(std::optional<SettingsSection>)

namespace {

// By the visual tree: view delegates have no QObject parent to be found by.
QQuickItem *findItem(QQuickItem *item, const QString &objectName)
{
    if (item->objectName() == objectName)
        return item;
    for (QQuickItem *child : item->childItems()) {
        if (QQuickItem *found = findItem(child, objectName))
            return found;
    }
    return nullptr;
}

QQuickItem *findItem(const SettingsWindow &settings, const QString &objectName)
{
    return findItem(settings.window()->rootObject(), objectName);
}

} // namespace

class TestSettingsModels : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<UserDefaults> m_defaults;
    NoSelection m_selection;
    IdleNarrationControls m_controls;

    std::unique_ptr<HotkeyManager> makeHotkeys(NullGlobalHotKeys **keys = nullptr)
    {
        auto backend = std::make_unique<NullGlobalHotKeys>();
        if (keys)
            *keys = backend.get();
        return std::make_unique<HotkeyManager>(*m_defaults, std::move(backend), m_selection, m_controls);
    }

private Q_SLOTS:
    void initTestCase()
    {
        QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
        QCoreApplication::setApplicationVersion(QStringLiteral("1.2.3"));
    }
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        m_defaults = std::make_unique<UserDefaults>(m_dir->filePath(QStringLiteral("q.conf")));
    }

    // Every section draws from real managers without a binding or type error.
    void everySectionShows()
    {
        KeychainHelper keychain(QStringLiteral("test"), std::make_unique<MemorySecretStore>());
        NoAccount account;
        SpeechManager::Services speechServices;
        speechServices.defaults = m_defaults.get();
        speechServices.keychain = &keychain;
        speechServices.selection = &m_selection;
        speechServices.account = &account;
        speechServices.audioSink = std::make_unique<NullAudioSink>(NullAudioSink::Clock::Manual);
        SpeechManager speech(std::move(speechServices));
        HistoryManager history(*m_defaults, m_dir->filePath(QStringLiteral("History")));
        history.addSession(QStringLiteral("\n  First line\nsecond"), QStringLiteral("cedar"), 3,
                           QByteArray(480, 0));
        UsageManager usage(*m_defaults);
        const std::unique_ptr<HotkeyManager> hotkeys = makeHotkeys();
        AuthManager::Services authServices;
        authServices.keychain = &keychain;
        authServices.log = [](const QString &) {};
        AuthManager auth(std::move(authServices));
        BalanceManager::Services balanceServices;
        balanceServices.auth = &auth;
        balanceServices.log = [](const QString &) {};
        BalanceManager balance(std::move(balanceServices));

        // QML's own warnings name the file they come from.
        QTest::failOnWarning(QRegularExpression(QStringLiteral("\\.qml")));
        SettingsServices services;
        services.speech = &speech;
        services.auth = &auth;
        services.balance = &balance;
        services.hotkeys = hotkeys.get();
        services.keychain = &keychain;
        services.history = &history;
        services.usage = &usage;
        services.defaults = m_defaults.get();
        services.ownKeyChanged = [] {};
        SettingsWindow settings(std::nullopt, std::move(services));
        settings.present();
        QCOMPARE(settings.window()->status(), QQuickView::Ready);
        for (const QString &section : settings.viewModel()->sections()) {
            QVERIFY(settings.viewModel()->selectLabel(section));
            QTest::qWait(20);
        }
        QCOMPARE(settings.viewModel()->history()->rows().first().toMap().value(QStringLiteral("title")),
                 QStringLiteral("First line"));
    }

    // What a typed server address is taken as, and where narrations then go.
    void serverRules_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<Verdict::Kind>("kind");
        QTest::addColumn<QString>("origin");

        const auto row = [](const char *typed, Verdict::Kind kind, const char *origin = "") {
            QTest::newRow(typed) << QString::fromLatin1(typed) << kind << QString::fromLatin1(origin);
        };
        row("https://api.openai.com/", Verdict::Encrypted, "https://api.openai.com");
        row("https://tts.example.com:8443", Verdict::Encrypted, "https://tts.example.com:8443");
        row("http://localhost:8880", Verdict::Unencrypted, "http://localhost:8880");
        row("http://127.0.0.5:8000", Verdict::Unencrypted, "http://127.0.0.5:8000");
        row("http://[::1]:8000", Verdict::Unencrypted, "http://[::1]:8000");
        row("http://10.1.2.3", Verdict::Unencrypted, "http://10.1.2.3");
        row("http://172.31.255.1", Verdict::Unencrypted, "http://172.31.255.1"); // top of 172.16/12
        row("http://172.32.0.1", Verdict::Refused);
        row("HTTP://192.168.1.20/", Verdict::Unencrypted, "http://192.168.1.20");
        row("http://[fd12::1]", Verdict::Unencrypted, "http://[fd12::1]");
        row("http://speech.local:5000", Verdict::Unencrypted, "http://speech.local:5000");
        row("http://example.com", Verdict::Refused);
        row("http://localhost.example.com", Verdict::Refused);
        row("api.openai.com", Verdict::Refused);
        row("ftp://localhost", Verdict::Refused);
        row("https://user:pw@api.openai.com", Verdict::Refused);
    }
    void serverRules()
    {
        QFETCH(QString, typed);
        QFETCH(Verdict::Kind, kind);
        QFETCH(QString, origin);
        const Verdict verdict = OpenAIServer::check(typed);
        QCOMPARE(verdict.kind, kind);
        QCOMPARE(verdict.origin.toString(), origin);
        QCOMPARE(verdict.message.isEmpty(), kind == Verdict::Encrypted);
        if (kind == Verdict::Unencrypted)
            QCOMPARE(verdict.message, QStringLiteral("The key is sent unencrypted."));

        // Stored, an accepted server replaces the deployment's, unless the deployment came from the
        // environment.
        const QUrl deployment(QStringLiteral("https://deploy.test"));
        QCOMPARE(OpenAIServer::effectiveOrigin(*m_defaults, deployment, false), deployment);
        m_defaults->setString(OpenAIServer::serverKey, typed);
        QCOMPARE(OpenAIServer::effectiveOrigin(*m_defaults, deployment, false).toString(),
                 kind == Verdict::Refused ? deployment.toString() : origin);
        QCOMPARE(OpenAIServer::effectiveOrigin(*m_defaults, deployment, true), deployment);
    }

    // The key goes to the keyring only and is shown masked; a refused server is not stored.
    void apiKeys()
    {
        UserDefaults &defaults = *m_defaults;
        KeychainHelper keychain(QStringLiteral("test"), std::make_unique<MemorySecretStore>());
        int ownKeyChanges = 0;
        ApiKeySettingsModel model({.keychain = &keychain,
                                   .defaults = &defaults,
                                   .openAIOrigin = OpenAIServer::defaultOrigin(),
                                   .ownKeyChanged = [&] { ++ownKeyChanges; }});
        QVERIFY(!model.hasKey());

        QVERIFY(model.saveKey(QStringLiteral("  sk-proj-abcdefgh1234 ")));
        QCOMPARE(keychain.load(KeychainKey::openAIAPIKey), QStringLiteral("sk-proj-abcdefgh1234"));
        QCOMPARE(model.maskedKey(), QStringLiteral("sk-…1234"));
        QCOMPARE(ownKeyChanges, 1);
        defaults.sync();
        QFile file(defaults.filePath());
        QVERIFY(!file.open(QIODevice::ReadOnly) || !file.readAll().contains("abcdefgh"));

        QVERIFY(!model.setServer(QStringLiteral("http://example.com")));
        QVERIFY(!model.serverError().isEmpty());
        QVERIFY(!defaults.contains(OpenAIServer::serverKey));
        QVERIFY(model.setServer(QStringLiteral("http://localhost:8880/")));
        QCOMPARE(defaults.string(OpenAIServer::serverKey), QStringLiteral("http://localhost:8880"));
        QCOMPARE(model.serverNote(), QStringLiteral("The key is sent unencrypted."));

        QVERIFY(model.removeKey());
        QVERIFY(!keychain.load(KeychainKey::openAIAPIKey));
        QVERIFY(model.maskedKey().isEmpty());
        QCOMPARE(ownKeyChanges, 2);
    }

    void rowReset_data()
    {
        QTest::addColumn<int>("row");
        QTest::addColumn<QString>("keyCodeKey");
        const QStringList keys{"hotkeyKeyCode",   "playPauseKeyCode",   "stopKeyCode",
                               "skipBackKeyCode", "skipForwardKeyCode", "cycleSpeedKeyCode"};
        for (int row = 0; row < HotkeyManager::kBindingCount; ++row)
            QTest::newRow(qPrintable(ShortcutSettingsModel::rowTitle(row))) << row << keys.at(row);
    }
    // A reset writes the row's default back and registers it again.
    void rowReset()
    {
        QFETCH(int, row);
        QFETCH(QString, keyCodeKey);
        NullGlobalHotKeys *keys = nullptr;
        const std::unique_ptr<HotkeyManager> hotkeys = makeHotkeys(&keys);
        ShortcutSettingsModel model(hotkeys.get(), QString());
        const auto binding = HotkeyManager::Binding(row);
        const QSet<NativeHotKey> defaultGrabs = keys->grabbed();

        model.record(row, 40, 0x100000); // Command+K
        QVERIFY(keys->grabbed() != defaultGrabs);
        QCOMPARE(model.rows().at(row).toMap().value(QStringLiteral("isDefault")), false);

        model.reset(row);
        QCOMPARE(keys->grabbed(), defaultGrabs);
        QVERIFY(hotkeys->isRegistered(binding));
        const QVariantMap shown = model.rows().at(row).toMap();
        QCOMPARE(shown.value(QStringLiteral("isDefault")), true);
        QCOMPARE(shown.value(QStringLiteral("label")),
                 HotkeyManager::shortcutLabel(HotkeyManager::defaultKeyFor(binding),
                                              HotkeyManager::defaultModifiersFor(binding)));
        QCOMPARE(m_defaults->unsigned32(keyCodeKey), HotkeyManager::defaultKeyFor(binding));
    }

    // Each period in picker order: its label, its name for the server, and the counts shown on picking
    // it (the week is picked at first).
    void usagePeriods()
    {
        m_defaults->setData(UsageManager::allTimeKey, UsageStats{100, 7}.toJson());
        UsageManager usage(*m_defaults);
        usage.recordNarration(5);
        const std::pair<const char *, const char *> rows[] = {
            {"This Week", "week"}, {"This Month", "month"}, {"All Time", "all"}};
        for (int index = 0; index < 3; ++index) {
            const UsagePeriod period = allUsagePeriods().at(index);
            QCOMPARE(usagePeriodLabel(period), QString::fromLatin1(rows[index].first));
            QCOMPARE(UsageSettingsModel::serverPeriod(period), QString::fromLatin1(rows[index].second));
            UsageSettingsModel model(usage, nullptr, nullptr);
            QSignalSpy shown(&model, &UsageSettingsModel::localChanged);
            model.setPeriodIndex(index);
            QCOMPARE(shown.size(), index == 0 ? 0 : 1);
            QCOMPARE(model.characters(), usage.stats(period).characters);
            QCOMPARE(model.narrations(), usage.stats(period).narrations);
        }
    }

    // About's switches land where the update checker and the desktop session read them.
    void aboutSwitches()
    {
        AboutSettingsModel about(m_defaults.get(), Autostart(m_dir->path()));
        QVERIFY(about.checkForUpdatesAutomatically());
        about.setCheckForUpdatesAutomatically(false);
        QCOMPARE(m_defaults->boolean(QStringLiteral("checkForUpdatesAutomatically")),
                 std::optional<bool>(false));
        about.setStartAtLogin(true);
        QVERIFY(QFile::exists(m_dir->filePath(QStringLiteral("autostart/com.vantor.Quillvox.desktop"))));
        QVERIFY(about.startAtLogin() && about.startAtLoginError().isEmpty());
        about.setStartAtLogin(false);
        QVERIFY(!about.startAtLogin());
    }

    // GNOME on Wayland: switching the extension on where GNOME Shell has it, GNOME's own shortcuts where
    // it cannot run, neither where a new login is the answer or it already runs.
    void gnomeOffers()
    {
        using S = GnomeShellExtension::Support;
        // The support, then whether the extension can be switched on and GNOME's shortcuts added.
        const std::tuple<S, bool, bool> rows[] = {
            {S::NotGnome, false, false},     {S::Available, false, false},   {S::NotEnabled, true, false},
            {S::NeedsRestart, false, false}, {S::NotInstalled, false, true}, {S::Failed, false, true}};
        for (const auto &[support, canEnable, canAdd] : rows) {
            ShortcutSettingsModel model(nullptr, QString());
            QSignalSpy changed(&model, &ShortcutSettingsModel::gnomeChanged);
            model.setGnomeSupport(support);
            QCOMPARE(model.canEnableGnomeExtension(), canEnable);
            QCOMPARE(model.canAddGnomeKeybindings(), canAdd);
            QCOMPARE(model.gnomeExtensionHelp().isEmpty(), support == S::NotGnome || support == S::Available);
            QCOMPARE(changed.size(), support == S::NotGnome ? 0 : 1);
        }
    }

    // Without global shortcuts: sway's configuration lines (keysyms in lower case), the bare commands, or
    // GNOME's custom shortcuts with the current combinations, modifiers in PC names.
    void desktopBindings()
    {
        const QStringList sway = ShortcutSettingsModel::desktopBindings(true).split(u'\n');
        QCOMPARE(sway.size(), 6);
        QCOMPARE(sway.first(), QStringLiteral("bindsym Ctrl+Alt+s exec quillvox --narrate-selection"));
        QCOMPARE(sway.last(), QStringLiteral("bindsym Ctrl+Alt+t exec quillvox --cycle-speed"));
        QCOMPARE(ShortcutSettingsModel::desktopBindings(false).split(u'\n').at(1),
                 QStringLiteral("quillvox --toggle"));

        const std::unique_ptr<HotkeyManager> hotkeys = makeHotkeys();
        hotkeys->updateStopHotKey(1, 0x20000 | 0x40000); // Shift + Control (Super) + S
        const QList<GnomeKeybindings::Entry> entries =
            ShortcutSettingsModel(hotkeys.get(), {}).gnomeKeybindings();
        QCOMPARE(entries.size(), 6);
        QCOMPARE(entries.first(),
                 (GnomeKeybindings::Entry{"narrate-selection", "Quillvox: Narrate Selection",
                                          "quillvox --narrate-selection", "<Control><Alt>s"}));
        QCOMPARE(entries.at(2).binding, QStringLiteral("<Shift><Super>s"));
        QCOMPARE(entries.at(2).command, QStringLiteral("quillvox --stop"));
        QCOMPARE(ShortcutSettingsModel(nullptr, {}).gnomeKeybindings().at(5).binding,
                 QStringLiteral("<Control><Alt>t"));
    }

    void sectionsByLabel()
    {
        const QStringList labels{QStringLiteral("Account"),    QStringLiteral("Voice"),
                                 QStringLiteral("Appearance"), QStringLiteral("Shortcuts"),
                                 QStringLiteral("API Keys"),   QStringLiteral("History"),
                                 QStringLiteral("Usage"),      QStringLiteral("About")};
        QCOMPARE(SettingsViewModel().sections(), labels);
        for (const QString &label : labels)
            QCOMPARE(settingsSectionLabel(settingsSectionFromLabel(label).value()), label);
        QVERIFY(!settingsSectionFromLabel(QStringLiteral("shortcuts")));
        QVERIFY(!settingsSectionFromLabel(QString()));
    }

    void frame()
    {
        SettingsWindow settings;
        QQuickView *window = settings.window();
        QCOMPARE(window->status(), QQuickView::Ready);
        QCOMPARE(window->title(), QStringLiteral("Settings"));
        QCOMPARE(window->minimumSize(), QSize(900, 600));
        QCOMPARE(settings.viewModel()->currentSection(), SettingsSection::account);
        QCOMPARE(findItem(settings, QStringLiteral("versionLabel"))->property("text").toString(),
                 QStringLiteral("Version 1.2.3"));
    }

    // Steps: "click:<label>" clicks the sidebar row, "navigate:<label>" posts navigateToSettingsSection,
    // "reopen" closes the window and presents it again.
    void navigation_data()
    {
        QTest::addColumn<std::optional<SettingsSection>>("initial");
        QTest::addColumn<QStringList>("steps");
        QTest::addColumn<SettingsSection>("shown");

        QTest::newRow("default") << std::optional<SettingsSection>() << QStringList()
                                 << SettingsSection::account;
        QTest::newRow("asked for") << std::optional(SettingsSection::about) << QStringList()
                                   << SettingsSection::about;
        QTest::newRow("sidebar click")
            << std::optional<SettingsSection>() << QStringList{QStringLiteral("click:API Keys")}
            << SettingsSection::apiKeys;
        QTest::newRow("navigation") << std::optional<SettingsSection>()
                                    << QStringList{QStringLiteral("navigate:Shortcuts")}
                                    << SettingsSection::shortcuts;
        QTest::newRow("unknown navigation ignored")
            << std::optional(SettingsSection::voice) << QStringList{QStringLiteral("navigate:Nowhere")}
            << SettingsSection::voice;
        QTest::newRow("kept after closing")
            << std::optional<SettingsSection>()
            << QStringList{QStringLiteral("click:History"), QStringLiteral("reopen")}
            << SettingsSection::history;
    }

    void navigation()
    {
        QFETCH(std::optional<SettingsSection>, initial);
        QFETCH(QStringList, steps);
        QFETCH(SettingsSection, shown);

        SettingsWindow settings(initial);
        settings.present();
        QVERIFY(QTest::qWaitForWindowExposed(settings.window()));
        for (const QString &step : std::as_const(steps)) {
            const QString label = step.section(u':', 1);
            if (step.startsWith(u"click:")) {
                QQuickItem *row = findItem(settings, QStringLiteral("section:") + label);
                QVERIFY2(row, qPrintable(label));
                const QPointF centre = row->mapToScene(QPointF(row->width() / 2, row->height() / 2));
                QTest::mouseClick(settings.window(), Qt::LeftButton, {}, centre.toPoint());
            } else if (step.startsWith(u"navigate:")) {
                Q_EMIT AppEvents::shared().navigateToSettingsSection(label);
            } else {
                settings.window()->close();
                QTRY_VERIFY(!settings.window()->isVisible());
                settings.present();
                QVERIFY(QTest::qWaitForWindowExposed(settings.window()));
            }
        }
        QCOMPARE(settings.viewModel()->currentSection(), shown);
        const QQuickItem *pages = findItem(settings, QStringLiteral("sectionPages"));
        QCOMPARE(pages->property("currentIndex").toInt(), int(allSettingsSections().indexOf(shown)));
    }
};

QTEST_MAIN(TestSettingsModels)
#include "tst_settingsmodels.moc"
