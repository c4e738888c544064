// SPDX-License-Identifier: GPL-3.0-or-later
#include "account/AuthManager.h"
#include "account/BalanceManager.h"
#include "account/KeychainHelper.h"
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
#include <QQuickView>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using Verdict = OpenAIServer::Verdict;
Q_DECLARE_METATYPE(Verdict::Kind)
Q_DECLARE_METATYPE(GnomeShellExtension::Support)

class TestSettingsModels : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QQuickWindow::setGraphicsApi(QSGRendererInterface::Software); }

    // Every section draws from real managers without a binding or type error.
    void everySectionShows()
    {
        QTemporaryDir dir;
        UserDefaults defaults(dir.filePath(QStringLiteral("q.conf")));
        KeychainHelper keychain(QStringLiteral("test"), std::make_unique<MemorySecretStore>());
        NoSelection selection;
        NoAccount account;
        SpeechManager::Services speechServices;
        speechServices.defaults = &defaults;
        speechServices.keychain = &keychain;
        speechServices.selection = &selection;
        speechServices.account = &account;
        speechServices.audioSink = std::make_unique<NullAudioSink>(NullAudioSink::Clock::Manual);
        SpeechManager speech(std::move(speechServices));
        HistoryManager history(defaults, dir.filePath(QStringLiteral("History")));
        history.addSession(QStringLiteral("\n  First line\nsecond"), QStringLiteral("cedar"), 3,
                           QByteArray(480, 0));
        UsageManager usage(defaults);
        IdleNarrationControls controls;
        HotkeyManager hotkeys(defaults, std::make_unique<NullGlobalHotKeys>(), selection, controls);
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
        services.hotkeys = &hotkeys;
        services.keychain = &keychain;
        services.history = &history;
        services.usage = &usage;
        services.defaults = &defaults;
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

    void serverRules_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<Verdict::Kind>("kind");
        QTest::addColumn<QString>("origin");

        QTest::newRow("openai") << "https://api.openai.com/" << Verdict::Encrypted
                                << "https://api.openai.com";
        QTest::newRow("public https")
            << "https://tts.example.com:8443" << Verdict::Encrypted << "https://tts.example.com:8443";
        QTest::newRow("localhost") << "http://localhost:8880" << Verdict::Unencrypted
                                   << "http://localhost:8880";
        QTest::newRow("loopback v4") << "http://127.0.0.5:8000" << Verdict::Unencrypted
                                     << "http://127.0.0.5:8000";
        QTest::newRow("loopback v6") << "http://[::1]:8000" << Verdict::Unencrypted << "http://[::1]:8000";
        QTest::newRow("10/8") << "http://10.1.2.3" << Verdict::Unencrypted << "http://10.1.2.3";
        QTest::newRow("172.16/12 top")
            << "http://172.31.255.1" << Verdict::Unencrypted << "http://172.31.255.1";
        QTest::newRow("172.32 public") << "http://172.32.0.1" << Verdict::Refused << "";
        QTest::newRow("192.168/16") << "HTTP://192.168.1.20/" << Verdict::Unencrypted
                                    << "http://192.168.1.20";
        QTest::newRow("fc00::/7") << "http://[fd12::1]" << Verdict::Unencrypted << "http://[fd12::1]";
        QTest::newRow(".local") << "http://speech.local:5000" << Verdict::Unencrypted
                                << "http://speech.local:5000";
        QTest::newRow("public http") << "http://example.com" << Verdict::Refused << "";
        QTest::newRow("lookalike") << "http://localhost.example.com" << Verdict::Refused << "";
        QTest::newRow("no scheme") << "api.openai.com" << Verdict::Refused << "";
        QTest::newRow("other scheme") << "ftp://localhost" << Verdict::Refused << "";
        QTest::newRow("credentials") << "https://user:pw@api.openai.com" << Verdict::Refused << "";
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
    }

    void effectiveOrigin_data()
    {
        QTest::addColumn<QString>("stored");
        QTest::addColumn<bool>("fromEnvironment");
        QTest::addColumn<QString>("effective");

        QTest::newRow("default") << QString() << false << "https://deploy.test";
        QTest::newRow("stored") << "http://127.0.0.1:9000" << false << "http://127.0.0.1:9000";
        QTest::newRow("environment wins") << "http://127.0.0.1:9000" << true << "https://deploy.test";
        QTest::newRow("stored but refused") << "http://example.com" << false << "https://deploy.test";
    }
    void effectiveOrigin()
    {
        QFETCH(QString, stored);
        QFETCH(bool, fromEnvironment);
        QFETCH(QString, effective);
        QTemporaryDir dir;
        UserDefaults defaults(dir.filePath(QStringLiteral("q.conf")));
        if (!stored.isEmpty())
            defaults.setString(OpenAIServer::serverKey, stored);
        QCOMPARE(OpenAIServer::effectiveOrigin(defaults, QUrl(QStringLiteral("https://deploy.test")),
                                               fromEnvironment)
                     .toString(),
                 effective);
    }

    // The key goes to the keyring only and is shown masked; a refused server is not stored.
    void apiKeys()
    {
        QTemporaryDir dir;
        UserDefaults defaults(dir.filePath(QStringLiteral("q.conf")));
        KeychainHelper keychain(QStringLiteral("test"), std::make_unique<MemorySecretStore>());
        int ownKeyChanges = 0;
        ApiKeySettingsModel::Services services;
        services.keychain = &keychain;
        services.defaults = &defaults;
        services.openAIOrigin = OpenAIServer::defaultOrigin();
        services.ownKeyChanged = [&] { ++ownKeyChanges; };
        ApiKeySettingsModel model(std::move(services));
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
        QTemporaryDir dir;
        UserDefaults defaults(dir.filePath(QStringLiteral("q.conf")));
        auto backend = std::make_unique<NullGlobalHotKeys>();
        NullGlobalHotKeys *keys = backend.get();
        NoSelection selection;
        IdleNarrationControls controls;
        HotkeyManager hotkeys(defaults, std::move(backend), selection, controls);
        ShortcutSettingsModel model(&hotkeys, QString());
        const auto binding = HotkeyManager::Binding(row);
        const QSet<NativeHotKey> defaultGrabs = keys->grabbed();

        model.record(row, 40, 0x100000); // Command+K
        QVERIFY(keys->grabbed() != defaultGrabs);
        QCOMPARE(model.rows().at(row).toMap().value(QStringLiteral("isDefault")), false);

        model.reset(row);
        QCOMPARE(keys->grabbed(), defaultGrabs);
        QVERIFY(hotkeys.isRegistered(binding));
        const QVariantMap shown = model.rows().at(row).toMap();
        QCOMPARE(shown.value(QStringLiteral("isDefault")), true);
        QCOMPARE(shown.value(QStringLiteral("label")),
                 HotkeyManager::shortcutLabel(HotkeyManager::defaultKeyFor(binding),
                                              HotkeyManager::defaultModifiersFor(binding)));
        QCOMPARE(defaults.unsigned32(keyCodeKey), HotkeyManager::defaultKeyFor(binding));
    }

    void usagePeriods_data()
    {
        QTest::addColumn<int>("index");
        QTest::addColumn<QString>("label");
        QTest::addColumn<QString>("server");

        QTest::newRow("week") << 0 << "This Week"
                              << "week";
        QTest::newRow("month") << 1 << "This Month"
                               << "month";
        QTest::newRow("all") << 2 << "All Time"
                             << "all";
    }
    void usagePeriods()
    {
        QFETCH(int, index);
        QFETCH(QString, label);
        QFETCH(QString, server);
        const UsagePeriod period = allUsagePeriods().at(index);
        QCOMPARE(usagePeriodLabel(period), label);
        QCOMPARE(UsageSettingsModel::serverPeriod(period), server);

        // Picking the period shows its counts (the week is picked at first).
        QTemporaryDir dir;
        UserDefaults defaults(dir.filePath(QStringLiteral("q.conf")));
        defaults.setData(UsageManager::allTimeKey, UsageStats{100, 7}.toJson());
        UsageManager usage(defaults);
        usage.recordNarration(5);
        UsageSettingsModel model(usage, nullptr, nullptr);
        QSignalSpy shown(&model, &UsageSettingsModel::localChanged);
        model.setPeriodIndex(index);
        QCOMPARE(shown.size(), index == 0 ? 0 : 1);
        QCOMPARE(model.characters(), usage.stats(period).characters);
        QCOMPARE(model.narrations(), usage.stats(period).narrations);
    }

    // About's switches land where the update checker and the desktop session read them.
    void aboutSwitches()
    {
        QTemporaryDir dir;
        UserDefaults defaults(dir.filePath(QStringLiteral("settings.conf")));
        AboutSettingsModel about(&defaults, Autostart(dir.path()));
        QVERIFY(about.checkForUpdatesAutomatically());
        about.setCheckForUpdatesAutomatically(false);
        QCOMPARE(defaults.boolean(QStringLiteral("checkForUpdatesAutomatically")),
                 std::optional<bool>(false));
        about.setStartAtLogin(true);
        QVERIFY(QFile::exists(dir.filePath(QStringLiteral("autostart/com.vantor.Quillvox.desktop"))));
        QVERIFY(about.startAtLogin() && about.startAtLoginError().isEmpty());
        about.setStartAtLogin(false);
        QVERIFY(!about.startAtLogin());
    }

    // Without global shortcuts: sway's configuration lines (keysyms in lower case), or the bare commands.
    void desktopBindings()
    {
        const QStringList sway = ShortcutSettingsModel::desktopBindings(true).split(u'\n');
        QCOMPARE(sway.size(), 6);
        QCOMPARE(sway.first(), QStringLiteral("bindsym Ctrl+Alt+s exec quillvox --narrate-selection"));
        QCOMPARE(sway.last(), QStringLiteral("bindsym Ctrl+Alt+t exec quillvox --cycle-speed"));
        QCOMPARE(ShortcutSettingsModel::desktopBindings(false).split(u'\n').at(1),
                 QStringLiteral("quillvox --toggle"));
    }

    // GNOME on Wayland: switching the extension on where GNOME Shell has it, GNOME's own shortcuts where
    // it cannot run, neither where a new login is the answer or it already runs.
    void gnomeOffers_data()
    {
        QTest::addColumn<GnomeShellExtension::Support>("support");
        QTest::addColumn<bool>("canEnable");
        QTest::addColumn<bool>("canAdd");
        using S = GnomeShellExtension::Support;
        QTest::newRow("not gnome") << S::NotGnome << false << false;
        QTest::newRow("running") << S::Available << false << false;
        QTest::newRow("switched off") << S::NotEnabled << true << false;
        QTest::newRow("installed after login") << S::NeedsRestart << false << false;
        QTest::newRow("not installed") << S::NotInstalled << false << true;
        QTest::newRow("failed") << S::Failed << false << true;
    }
    void gnomeOffers()
    {
        QFETCH(GnomeShellExtension::Support, support);
        QFETCH(bool, canEnable);
        QFETCH(bool, canAdd);
        ShortcutSettingsModel model(nullptr, QString());
        QSignalSpy changed(&model, &ShortcutSettingsModel::gnomeChanged);
        model.setGnomeSupport(support);
        QCOMPARE(model.canEnableGnomeExtension(), canEnable);
        QCOMPARE(model.canAddGnomeKeybindings(), canAdd);
        QCOMPARE(model.gnomeExtensionHelp().isEmpty(),
                 support == GnomeShellExtension::Support::NotGnome ||
                     support == GnomeShellExtension::Support::Available);
        QCOMPARE(changed.size(), support == GnomeShellExtension::Support::NotGnome ? 0 : 1);
    }

    // GNOME's custom shortcuts get the current combinations, modifiers in PC names.
    void gnomeKeybindings()
    {
        QTemporaryDir dir;
        UserDefaults defaults(dir.filePath(QStringLiteral("q.conf")));
        NoSelection selection;
        IdleNarrationControls controls;
        HotkeyManager hotkeys(defaults, std::make_unique<NullGlobalHotKeys>(), selection, controls);
        hotkeys.updateStopHotKey(1, 0x20000 | 0x40000); // Shift + Control (Super) + S
        const QList<GnomeKeybindings::Entry> entries = ShortcutSettingsModel(&hotkeys, {}).gnomeKeybindings();
        QCOMPARE(entries.size(), 6);
        QCOMPARE(entries.first(),
                 (GnomeKeybindings::Entry{"narrate-selection", "Quillvox: Narrate Selection",
                                          "quillvox --narrate-selection", "<Control><Alt>s"}));
        QCOMPARE(entries.at(2).binding, QStringLiteral("<Shift><Super>s"));
        QCOMPARE(entries.at(2).command, QStringLiteral("quillvox --stop"));
        QCOMPARE(ShortcutSettingsModel(nullptr, {}).gnomeKeybindings().at(5).binding,
                 QStringLiteral("<Control><Alt>t"));
    }
};

QTEST_MAIN(TestSettingsModels)
#include "tst_settingsmodels.moc"
