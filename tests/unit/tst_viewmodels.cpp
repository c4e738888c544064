// SPDX-License-Identifier: GPL-3.0-or-later
// The windows' view models on real managers, a manual clock and the null sink, and their QML as drawn.
#include "ManualClock.h"

#include "account/AuthManager.h"
#include "account/BalanceManager.h"
#include "account/KeychainHelper.h"
#include "core/AppEvents.h"
#include "core/Autostart.h"
#include "core/UserDefaults.h"
#include "onboarding/OnboardingPackage.h"
#include "onboarding/OnboardingViewModel.h"
#include "onboarding/OnboardingWindow.h"
#include "platform/null/MemorySecretStore.h"
#include "platform/null/NullAudioSink.h"
#include "platform/null/NullPanelHints.h"
#include "platform/null/input/NullGlobalHotKeys.h"
#include "records/HistoryManager.h"
#include "records/UsageManager.h"
#include "records/UsageStats.h"
#include "settings/AboutSettingsModel.h"
#include "settings/ApiKeySettingsModel.h"
#include "settings/AppearanceSettingsModel.h"
#include "settings/HistoryListModel.h"
#include "settings/HistorySettingsModel.h"
#include "settings/SettingsServices.h"
#include "settings/SettingsViewModel.h"
#include "settings/SettingsWindow.h"
#include "settings/ShortcutSettingsModel.h"
#include "settings/UsageSettingsModel.h"
#include "settings/VoiceSettingsModel.h"
#include "shortcuts/HotkeyManager.h"
#include "shortcuts/NarrationControls.h"
#include "speech/FollowAlong.h"
#include "speech/NarrationServices.h"
#include "speech/OpenAIServer.h"
#include "speech/SpeechError.h"
#include "speech/SpeechManager.h"
#include "speech/VoiceStyle.h"
#include "widget/FloatingWidgetViewModel.h"
#include "widget/FloatingWindowController.h"
#include "widget/IconProvider.h"
#include "widget/WaveformView.h"
#include "widget/WidgetPalette.h"

#include <QAccessible>
#include <QDesktopServices>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QQuickItem>
#include <QQuickView>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

// Designated initializers leave the services a case does not use empty.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

using Verdict = OpenAIServer::Verdict;
using namespace std::chrono_literals;
Q_DECLARE_METATYPE(Verdict::Kind)

namespace {

QByteArray silence(double seconds)
{
    return QByteArray(qsizetype(seconds * SpeechManager::kSampleRateHz) * 2, '\0');
}

// By the visual tree (delegates have no QObject parent): a shown item that reads `text` by its accessible
// name or its text.
QQuickItem *findShown(QQuickItem *item, const QString &text)
{
    if (!item->isVisible())
        return nullptr;
    const QAccessibleInterface *accessible = QAccessible::queryAccessibleInterface(item);
    if ((accessible && accessible->text(QAccessible::Name) == text) || item->property("text") == text)
        return item;
    for (QQuickItem *child : item->childItems()) {
        if (QQuickItem *found = findShown(child, text))
            return found;
    }
    return nullptr;
}

void writeFile(const QString &path, const QByteArray &contents)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(contents);
}

} // namespace

class TestViewModels : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<UserDefaults> m_defaults;
    std::unique_ptr<KeychainHelper> m_keychain;
    NoSelection m_selection;
    NoAccount m_account;
    IdleNarrationControls m_controls;
    NullAudioSink *m_sink = nullptr;
    NullGlobalHotKeys *m_keys = nullptr;
    std::unique_ptr<HotkeyManager> m_hotkeys; // on m_keys
    std::unique_ptr<SpeechManager> m_speech;
    ManualClock m_clock;
    QList<QUrl> m_opened; // by the browser

    // On the null sink driven by hand (m_sink), narrating with the own key at `openAIOrigin`.
    std::unique_ptr<SpeechManager> makeSpeech(const QUrl &openAIOrigin = {})
    {
        auto sink = std::make_unique<NullAudioSink>(NullAudioSink::Clock::Manual);
        m_sink = sink.get();
        return std::make_unique<SpeechManager>(SpeechManager::Services{.defaults = m_defaults.get(),
                                                                       .keychain = m_keychain.get(),
                                                                       .account = &m_account,
                                                                       .selection = &m_selection,
                                                                       .audioSink = std::move(sink),
                                                                       .openAIOrigin = openAIOrigin});
    }

    std::unique_ptr<AuthManager> makeAuth(const QString &origin,
                                          std::function<void(const QUrl &)> openUrl = {})
    {
        return std::make_unique<AuthManager>(
            AuthManager::Services{.keychain = m_keychain.get(),
                                  .clock = &m_clock,
                                  .authOrigin = QUrl(origin),
                                  .serviceOrigin = QUrl(u"https://svc.test"_qs),
                                  .openUrl = std::move(openUrl),
                                  .log = [](const QString &) {}});
    }

    std::unique_ptr<OnboardingViewModel> model(OnboardingViewModel::Services services = {})
    {
        services.clock = &m_clock;
        return std::make_unique<OnboardingViewModel>(std::move(services));
    }

    // Brings a fresh model to `step`.
    static void reach(OnboardingViewModel &vm, const QString &step)
    {
        if (step == u"purchaseConfirmation")
            Q_EMIT AppEvents::shared().onboardingPurchaseSuccess();
        const QStringList names{"welcome",  "signIn",  "freeMinutes",          "permissions",
                                "tutorial", "pricing", "purchaseConfirmation", "completion"};
        vm.goTo(allOnboardingSteps().at(names.indexOf(step)));
    }

public Q_SLOTS:
    void open(const QUrl &url) { m_opened.append(url); }

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
        m_keychain =
            std::make_unique<KeychainHelper>(QStringLiteral("test"), std::make_unique<MemorySecretStore>());
        m_speech = makeSpeech();
        auto keys = std::make_unique<NullGlobalHotKeys>();
        m_keys = keys.get();
        m_hotkeys = std::make_unique<HotkeyManager>(*m_defaults, std::move(keys), m_selection, m_controls);
    }

    void cleanup()
    {
        m_hotkeys.reset();
        m_speech.reset();
    }

    // Every section draws from real managers without a binding or type error; as drawn, About's skipped
    // version with "Forget", and local counts grouped as the server's are.
    void everySectionShows()
    {
        QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates));
        const auto restoreLocale = qScopeGuard([] { QLocale::setDefault(QLocale::system()); });
        m_defaults->setString(u"skippedVersion"_qs, u"1.4.0"_qs);
        m_defaults->setData(UsageManager::allTimeKey, UsageStats{12345, 7}.toJson());
        HistoryManager history(*m_defaults, m_dir->filePath(QStringLiteral("History")));
        history.addSession(QStringLiteral("\n  First line\nsecond"), QStringLiteral("cedar"), 3,
                           QByteArray(480, 0));
        UsageManager usage(*m_defaults);
        const auto auth = makeAuth({});
        BalanceManager balance({.auth = auth.get(), .log = [](const QString &) {}});

        // QML's own warnings name the file they come from.
        QTest::failOnWarning(QRegularExpression(QStringLiteral("\\.qml")));
        SettingsWindow settings(std::nullopt, {.speech = m_speech.get(),
                                               .auth = auth.get(),
                                               .balance = &balance,
                                               .hotkeys = m_hotkeys.get(),
                                               .keychain = m_keychain.get(),
                                               .history = &history,
                                               .usage = &usage,
                                               .defaults = m_defaults.get(),
                                               .ownKeyChanged = [] {}});
        settings.present();
        QCOMPARE(settings.window()->status(), QQuickView::Ready);
        for (const QString &section : settings.viewModel()->sections()) {
            QVERIFY(settings.viewModel()->selectLabel(section));
            QTest::qWait(20);
        }
        const HistoryListModel::Row shown = settings.viewModel()->history()->entries()->rows().first();
        QCOMPARE(shown.title, QStringLiteral("First line"));
        QCOMPARE(shown.text, QStringLiteral("\n  First line\nsecond"));

        QQuickItem *root = settings.window()->rootObject();
        QVERIFY(findShown(root, u"Version 1.2.3"_qs));
        QVERIFY(findShown(root, u"Skipped version: 1.4.0"_qs));
        QQuickItem *forget = findShown(root, u"Forget"_qs);
        QVERIFY(forget);
        QVERIFY(QMetaObject::invokeMethod(forget, "clicked"));
        QVERIFY(!m_defaults->string(u"skippedVersion"_qs));
        QTRY_VERIFY(!findShown(root, u"Forget"_qs));
        settings.viewModel()->select(SettingsSection::usage);
        settings.viewModel()->usage()->setPeriodIndex(2);
        QTRY_VERIFY(findShown(root, u"12,345"_qs));
    }

    // A window made before the shortcut manager, the keyring changed by another program, a recorder
    // left waiting: what the window shows follows its sources.
    void settingsFollowTheirSources()
    {
        QString captureProblem = QStringLiteral("No XTEST");
        SettingsServices services{.keychain = m_keychain.get(),
                                  .defaults = m_defaults.get(),
                                  .captureProblem = [&] { return captureProblem; }};
        SettingsViewModel settings(SettingsSection::shortcuts, services);
        ShortcutSettingsModel &shortcuts = *settings.shortcuts();
        QVERIFY(shortcuts.rows().isEmpty());
        shortcuts.setRecordingRow(0);
        QCOMPARE(shortcuts.recordingRow(), -1); // nothing to record without the manager

        services.hotkeys = m_hotkeys.get();
        captureProblem.clear();
        QSignalSpy rows(&shortcuts, &ShortcutSettingsModel::rowsChanged);
        settings.adoptServices(services);
        QCOMPARE(shortcuts.rows().size(), HotkeyManager::kBindingCount);
        QCOMPARE(rows.size(), 1);
        QVERIFY(shortcuts.captureProblem().isEmpty());

        // A recorder that stopped ends its own recording, not one another row has started since.
        shortcuts.setRecordingRow(2);
        shortcuts.finishRecording(2);
        QCOMPARE(shortcuts.recordingRow(), -1);
        shortcuts.setRecordingRow(2);
        shortcuts.finishRecording(1);
        QCOMPARE(shortcuts.recordingRow(), 2);
        // Leaving the section ends the recording and drops a key typed and not saved.
        ApiKeySettingsModel &apiKeys = *settings.apiKeys();
        apiKeys.setDraft(u"sk-half"_qs);
        settings.selectLabel(QStringLiteral("Voice"));
        QCOMPARE(shortcuts.recordingRow(), -1);
        QVERIFY(apiKeys.draft().isEmpty());

        captureProblem = QStringLiteral("Lost");
        QVERIFY(!apiKeys.hasKey());
        QVERIFY(m_keychain->save(QStringLiteral("sk-from-the-command-line"), KeychainKey::openAIAPIKey));
        QSignalSpy key(&apiKeys, &ApiKeySettingsModel::keyChanged);
        settings.windowActivated();
        QCOMPARE(apiKeys.maskedKey(), QStringLiteral("sk-…line"));
        QCOMPARE(shortcuts.captureProblem(), captureProblem);
        settings.windowActivated();
        QCOMPARE(key.size(), 1);
        QVERIFY(m_keychain->remove(KeychainKey::openAIAPIKey));
        apiKeys.reloadKey();
        QVERIFY(!apiKeys.hasKey());
    }

    // Recording and resetting a row from the keyboard keep the focus on that row's recorder; deleting a
    // history entry moves it to the next entry's Delete.
    void focusStaysOnItsRow()
    {
        HistoryManager history(*m_defaults, m_dir->filePath(QStringLiteral("History")));
        for (const char *text : {"Older", "Newer"})
            history.addSession(QString::fromLatin1(text), QStringLiteral("cedar"), 1, QByteArray(480, 0));
        SettingsWindow settings(SettingsSection::shortcuts,
                                {.speech = m_speech.get(), .hotkeys = m_hotkeys.get(), .history = &history});
        settings.present();
        QQuickWindow *window = settings.window();
        QVERIFY(QTest::qWaitForWindowActive(window));
        QTest::keyClick(window, Qt::Key_Tab); // the section list
        QTest::keyClick(window, Qt::Key_Tab);
        QQuickItem *recorder = window->activeFocusItem();
        QVERIFY(recorder && recorder->inherits("ShortcutRecorderItem"));

        settings.viewModel()->shortcuts()->record(0, 40, 0x100000);
        QCOMPARE(window->activeFocusItem(), recorder);
        QTest::keyClick(window, Qt::Key_Tab);
        QVERIFY(window->activeFocusItem()->property("text") == QStringLiteral("Reset"));
        QTest::keyClick(window, Qt::Key_Space);
        QVERIFY(m_hotkeys->currentKey() == HotkeyManager::defaultKey);
        QCOMPARE(window->activeFocusItem(), recorder);

        settings.viewModel()->selectLabel(QStringLiteral("History"));
        // Tab to the newest entry's Delete.
        for (int i = 0; i < 8 && window->activeFocusItem()->property("text") != QStringLiteral("Delete"); ++i)
            QTest::keyClick(window, Qt::Key_Tab);
        QCOMPARE(window->activeFocusItem()->property("text"), QStringLiteral("Delete"));
        QTest::keyClick(window, Qt::Key_Space);
        QCOMPARE(history.sessions().size(), 1);
        QCOMPARE(window->activeFocusItem()->property("text"), QStringLiteral("Delete"));
    }

    // The history's rows change in place: only the rows that changed are touched, none is rebuilt.
    void historyRowsInPlace()
    {
        // A letter per row; upper case is playing.
        const auto rows = [](const char *letters) {
            QList<HistoryListModel::Row> list;
            for (const QChar letter : QString::fromLatin1(letters)) {
                HistoryListModel::Row row;
                row.id = row.title = letter.toLower();
                row.playing = letter.isUpper();
                list.append(row);
            }
            return list;
        };
        // Added at the front, an eleventh pushing the last out, one deleted, cleared, one starting to play.
        for (const auto &[before, after, removedInsertedChanged] : {std::tuple{"bc", "abc", "0 1 0"},
                                                                    {"bcd", "abc", "1 1 0"},
                                                                    {"abc", "ac", "1 0 0"},
                                                                    {"abc", "", "3 0 0"},
                                                                    {"abc", "aBc", "0 0 1"}}) {
            HistoryListModel model;
            model.setRows(rows(before));
            QSignalSpy removed(&model, &QAbstractItemModel::rowsRemoved);
            QSignalSpy inserted(&model, &QAbstractItemModel::rowsInserted);
            QSignalSpy changed(&model, &QAbstractItemModel::dataChanged);
            QSignalSpy reset(&model, &QAbstractItemModel::modelReset);
            model.setRows(rows(after));
            QCOMPARE(model.rows(), rows(after));
            QCOMPARE(u"%1 %2 %3"_qs.arg(removed.size()).arg(inserted.size()).arg(changed.size()),
                     QLatin1String(removedInsertedChanged));
            QCOMPARE(reset.size(), 0);
        }
    }

    // What a typed server address is taken as, and where narrations then go.
    void serverRules_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<Verdict::Kind>("kind");
        QTest::addColumn<QString>("origin");
        // Unencrypted, Encrypted or Refused; the typed address; its origin where not the address itself.
        // 172.31.255.1 is the top of 172.16/12.
        for (const char *row :
             {"E https://api.openai.com/ https://api.openai.com", "E https://tts.example.com:8443",
              "U http://localhost:8880", "U http://127.0.0.5:8000", "U http://[::1]:8000",
              "U http://10.1.2.3", "U http://172.31.255.1", "U HTTP://192.168.1.20/ http://192.168.1.20",
              "U http://[fd12::1]", "U http://speech.local:5000", "R http://172.32.0.1",
              "R http://example.com", "R http://localhost.example.com", "R api.openai.com",
              "R ftp://localhost", "R https://user:pw@api.openai.com"}) {
            const QStringList parts = QString::fromLatin1(row).split(u' ');
            const Verdict::Kind kind = parts[0] == u"E"   ? Verdict::Encrypted
                                       : parts[0] == u"U" ? Verdict::Unencrypted
                                                          : Verdict::Refused;
            QTest::newRow(row + 2) << parts[1] << kind
                                   << (kind == Verdict::Refused ? QString() : parts.value(2, parts[1]));
        }
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

        // Stored, an accepted server replaces the deployment's (the deployment's own, and one from the
        // environment winning: tst_speechmanager, tst_settingsservers).
        const QUrl deployment(QStringLiteral("https://deploy.test"));
        m_defaults->setString(OpenAIServer::serverKey, typed);
        QCOMPARE(OpenAIServer::effectiveOrigin(*m_defaults, deployment, false).toString(),
                 kind == Verdict::Refused ? deployment.toString() : origin);
    }

    // The key goes to the keyring (only, and shown masked: tst_settingsdesktop); a refused server is not
    // stored.
    void apiKeys()
    {
        int ownKeyChanges = 0;
        ApiKeySettingsModel model({.keychain = m_keychain.get(),
                                   .defaults = m_defaults.get(),
                                   .openAIOrigin = OpenAIServer::defaultOrigin(),
                                   .ownKeyChanged = [&] { ++ownKeyChanges; }});
        QVERIFY(!model.hasKey());

        // Blank is no key; a saved one empties the field, Escape empties it only while it holds text.
        model.setDraft(u"   "_qs);
        QVERIFY(!model.canSave() && !model.saveDraft());
        QVERIFY(model.discardDraft() && !model.discardDraft());
        model.setDraft(u"  sk-proj-abcdefgh1234 "_qs);
        QVERIFY(model.canSave() && model.saveDraft());
        QVERIFY(model.draft().isEmpty());
        QCOMPARE(m_keychain->load(KeychainKey::openAIAPIKey), QStringLiteral("sk-proj-abcdefgh1234"));
        QCOMPARE(ownKeyChanges, 1);

        QVERIFY(!model.setServer(QStringLiteral("http://example.com")));
        QVERIFY(!model.serverError().isEmpty());
        QVERIFY(!m_defaults->contains(OpenAIServer::serverKey));
        QVERIFY(model.setServer(QStringLiteral("http://localhost:8880/")));
        QCOMPARE(m_defaults->string(OpenAIServer::serverKey), QStringLiteral("http://localhost:8880"));
        QCOMPARE(model.serverNote(), QStringLiteral("The key is sent unencrypted."));

        QVERIFY(model.removeKey());
        QVERIFY(!m_keychain->load(KeychainKey::openAIAPIKey));
        QVERIFY(model.maskedKey().isEmpty());
        QCOMPARE(ownKeyChanges, 2);

        // The test's result as shown: a tick only for one that worked.
        QVERIFY(model.setServer(QString()));
        model.test();
        QCOMPARE(model.testState(), ApiKeySettingsModel::TestState::Failed);
        QCOMPARE(model.testResultText(), model.testResult());
        QCOMPARE(ApiKeySettingsModel::shownResult(ApiKeySettingsModel::TestState::Works, u"Works"_qs),
                 u"✓ Works"_qs);
    }

    // A reset writes the row's default back and registers it again.
    void rowReset()
    {
        const QStringList keys{"hotkeyKeyCode",   "playPauseKeyCode",   "stopKeyCode",
                               "skipBackKeyCode", "skipForwardKeyCode", "cycleSpeedKeyCode"};
        ShortcutSettingsModel model(m_hotkeys.get(), {});
        const QSet<NativeHotKey> defaultGrabs = m_keys->grabbed();
        for (int row = 0; row < HotkeyManager::kBindingCount; ++row) {
            const auto binding = HotkeyManager::Binding(row);
            model.record(row, 40, 0x100000); // Command+K
            QVERIFY(m_keys->grabbed() != defaultGrabs);
            QCOMPARE(model.rows().at(row).toMap().value(QStringLiteral("isDefault")), false);

            model.reset(row);
            QCOMPARE(m_keys->grabbed(), defaultGrabs);
            QVERIFY(m_hotkeys->isRegistered(binding));
            const QVariantMap shown = model.rows().at(row).toMap();
            QCOMPARE(shown.value(QStringLiteral("isDefault")), true);
            QCOMPARE(shown.value(QStringLiteral("label")),
                     HotkeyManager::shortcutLabel(HotkeyManager::defaultKeyFor(binding),
                                                  HotkeyManager::defaultModifiersFor(binding)));
            QCOMPARE(m_defaults->unsigned32(keys.at(row)), HotkeyManager::defaultKeyFor(binding));
        }
    }

    // Each period in picker order: its label, its name for the server, and the counts shown on picking
    // it (the week is picked at first).
    void usagePeriods()
    {
        m_defaults->setData(UsageManager::allTimeKey, UsageStats{100, 7}.toJson());
        UsageManager usage(*m_defaults);
        usage.recordNarration(5);
        const QStringList labels{"This Week", "This Month", "All Time"}, server{"week", "month", "all"};
        for (int index = 0; index < 3; ++index) {
            const UsagePeriod period = allUsagePeriods().at(index);
            QCOMPARE(usagePeriodLabel(period), labels.at(index));
            QCOMPARE(UsageSettingsModel::serverPeriod(period), server.at(index));
            UsageSettingsModel model(usage, nullptr, nullptr);
            QSignalSpy shown(&model, &UsageSettingsModel::localChanged);
            model.setPeriodIndex(index);
            QCOMPARE(shown.size(), index == 0 ? 0 : 1);
            QCOMPARE(model.characters(), usage.stats(period).characters);
            QCOMPARE(model.narrations(), usage.stats(period).narrations);
        }
    }

    // About's switches land where the update checker and the desktop session read them; a skipped
    // version shows until forgotten; the website is the deployment's.
    void aboutSwitches()
    {
        AboutSettingsModel about(m_defaults.get(), Autostart(m_dir->path()), QUrl(u"https://site.test"_qs));
        QVERIFY(about.checkForUpdatesAutomatically());
        about.setCheckForUpdatesAutomatically(false);
        QCOMPARE(m_defaults->boolean(QStringLiteral("checkForUpdatesAutomatically")),
                 std::optional<bool>(false));
        about.setStartAtLogin(true);
        QVERIFY(QFile::exists(m_dir->filePath(QStringLiteral("autostart/com.vantor.Quillvox.desktop"))));
        QVERIFY(about.startAtLogin() && about.startAtLoginError().isEmpty());
        about.setStartAtLogin(false);
        QVERIFY(!about.startAtLogin());

        QSignalSpy changed(&about, &AboutSettingsModel::changed);
        m_defaults->setString(u"skippedVersion"_qs, u"1.4.0"_qs);
        Q_EMIT AppEvents::shared().skippedVersionChanged(); // skipped in the update window
        QCOMPARE(changed.size(), 1);

        QDesktopServices::setUrlHandler(u"https"_qs, this, "open");
        const auto restore = qScopeGuard([] { QDesktopServices::unsetUrlHandler(u"https"_qs); });
        about.openWebsite();
        QCOMPARE(m_opened, QList<QUrl>{QUrl(u"https://site.test"_qs)});
    }

    // The entry there before, whether that counts as on, and the switch.
    void autostartSwitching()
    {
        const QByteArray ours =
            "[Desktop Entry]\nType=Application\nName=Quillvox\nExec=quillvox --autostart\n";
        for (const auto &[existing, wasEnabled, enable] :
             {std::tuple(QByteArray(), false, true), // no folder yet
              {QByteArray(), false, false},
              {ours, true, false},
              {ours, true, true},
              {ours + "Hidden=true\n", false, true}, // hidden by the desktop
              {ours + "X-GNOME-Autostart-enabled=false\n", false, true},
              {ours + "\n[Desktop Action narrate]\nName=Narrate\nHidden=true\n", true, false}}) {
            QTemporaryDir dir;
            Autostart autostart(dir.path());
            if (!existing.isNull())
                writeFile(autostart.entryPath(), existing);
            QCOMPARE(autostart.isEnabled(), wasEnabled);

            QVERIFY(autostart.setEnabled(enable));
            QCOMPARE(autostart.isEnabled(), enable);
            QCOMPARE(Autostart(dir.path()).isEnabled(), enable);
            QCOMPARE(QFile::exists(autostart.entryPath()), enable);
            if (!enable)
                continue;
            // What the session will run, in a file the desktop's own tools accept.
            QProcess validate;
            validate.start(QStringLiteral("desktop-file-validate"), {autostart.entryPath()});
            QVERIFY(validate.waitForFinished());
            QCOMPARE(validate.readAllStandardOutput() + validate.readAllStandardError(), QByteArray());
            QCOMPARE(validate.exitCode(), 0);
            QFile entry(autostart.entryPath());
            QVERIFY(entry.open(QIODevice::ReadOnly));
            QVERIFY(entry.readAll().contains("\nExec=quillvox --autostart\n"));
        }
    }

    // The entry the About switch writes, on its own; and a folder that cannot be made.
    void autostartFolders()
    {
        QVERIFY(!qEnvironmentVariableIsEmpty("XDG_CONFIG_HOME"));
        const QString expected =
            qEnvironmentVariable("XDG_CONFIG_HOME") + u"/autostart/com.vantor.Quillvox.desktop";
        QCOMPARE(Autostart().entryPath(), expected);
        writeFile(m_dir->filePath(QStringLiteral("autostart")), "not a folder");
        Autostart autostart(m_dir->path());
        QVERIFY(!autostart.setEnabled(true));
        QVERIFY(autostart.lastError().contains(QStringLiteral("autostart")));
        QVERIFY(!autostart.isEnabled());
    }

    // Every speaking style has its own symbol in the Voice section, drawn in the colour asked for.
    void styleIcons()
    {
        const QVariantList styles = VoiceSettingsModel(*m_speech).styles();
        QCOMPARE(styles.size(), VoiceStyle::allCases().size());
        QSet<QString> names;
        IconProvider icons;
        for (const QVariant &style : styles) {
            const QString icon = style.toMap().value(u"icon"_qs).toString();
            names.insert(icon);
            const QImage image = icons.requestImage(icon + u"/ff0000"_qs, nullptr, QSize(24, 24));
            int inked = 0;
            for (int y = 0; y < 24; ++y)
                for (int x = 0; x < 24; ++x)
                    inked += qAlpha(image.pixel(x, y)) > 128 && qRed(image.pixel(x, y)) > 128;
            QVERIFY2(inked > 40, qPrintable(icon));
        }
        QCOMPARE(names.size(), styles.size());
    }

    // Which help the Shortcuts section shows. GNOME on Wayland: switching our extension on where GNOME Shell
    // has it, GNOME's own shortcuts where it cannot run, neither where a new login is the answer or it
    // already runs. Elsewhere the desktop's own settings, unless there are global shortcuts to record.
    void desktopHelp()
    {
        using S = GnomeShellExtension::Support;
        // Support, global shortcuts; then the extension offered, GNOME's shortcuts offered, the lines to
        // copy shown, the help: 'r' how to record, 'd' the desktop's way, '-' none (the extension's says it).
        const std::tuple<S, bool, bool, bool, bool, char> rows[] = {
            {S::NotGnome, true, false, false, false, 'r'},
            {S::NotGnome, false, false, false, true, 'd'},
            {S::Available, false, false, false, true, 'd'},
            {S::NotEnabled, false, true, false, false, '-'},
            {S::NeedsRestart, false, false, false, false, '-'},
            {S::NotInstalled, false, false, true, true, '-'},
            {S::Failed, false, false, true, true, '-'}};
        for (const auto &[support, global, canEnable, canAdd, showsLines, help] : rows) {
            ShortcutSettingsModel model(global ? m_hotkeys.get() : nullptr, {});
            QSignalSpy changed(&model, &ShortcutSettingsModel::helpChanged);
            model.setGnomeSupport(support);
            QCOMPARE(model.canEnableGnomeExtension(), canEnable);
            QCOMPARE(model.canAddGnomeKeybindings(), canAdd);
            QCOMPARE(model.gnomeExtensionHelp().isEmpty(), support == S::NotGnome || support == S::Available);
            QCOMPARE(changed.size(), support == S::NotGnome ? 0 : 1);
            QCOMPARE(model.showsDesktopBindings(), showsLines);
            QCOMPARE(model.help(),
                     help == 'r'   ? u"Click a shortcut, then press the new combination. Escape cancels."_qs
                     : help == 'd' ? model.desktopBindingsIntro()
                                   : QString());
        }
        // Without global shortcuts: sway's configuration lines (keysyms in lower case), the bare commands, or
        // GNOME's custom shortcuts with the current combinations, modifiers in PC names.
        const QStringList sway = ShortcutSettingsModel::desktopBindings(true).split(u'\n');
        QCOMPARE(sway.size(), 6);
        QCOMPARE(sway.first(), QStringLiteral("bindsym Ctrl+Alt+s exec quillvox --narrate-selection"));
        QCOMPARE(sway.last(), QStringLiteral("bindsym Ctrl+Alt+t exec quillvox --cycle-speed"));
        QCOMPARE(ShortcutSettingsModel::desktopBindings(false).split(u'\n').at(1),
                 QStringLiteral("quillvox --toggle"));

        m_hotkeys->updateStopHotKey(1, 0x20000 | 0x40000); // Shift + Control (Super) + S
        const QList<GnomeKeybindings::Entry> entries =
            ShortcutSettingsModel(m_hotkeys.get(), {}).gnomeKeybindings();
        QCOMPARE(entries.size(), 6);
        QCOMPARE(entries.first(),
                 (GnomeKeybindings::Entry{"narrate-selection", "Quillvox: Narrate Selection",
                                          "quillvox --narrate-selection", "<Control><Alt>s"}));
        QCOMPARE(entries.at(2).binding, QStringLiteral("<Shift><Super>s"));
        QCOMPARE(entries.at(2).command, QStringLiteral("quillvox --stop"));
        QCOMPARE(ShortcutSettingsModel(nullptr, {}).gnomeKeybindings().at(5).binding,
                 QStringLiteral("<Control><Alt>t"));
    }

    // Steps: "in"/"out" hover events, "force"/"unforce" the pin, "toggle" the expand button, "+N" lets N ms
    // pass; then whether the widget is expanded.
    void hoverCollapse()
    {
        // Back within the delay, a second leave restarting it, pinned before and after it is scheduled,
        // the expand button pinning; "=1" ends expanded.
        for (const char *row :
             {"in =1", "in out +199 =1", "in out +200 =0", "in out +150 in +500 =1",
              "in out +150 out +100 =1", "force in out +500 =1", "in out +100 force +500 =1",
              "in out force +100 unforce +500 =0", "toggle out +500 =1", "toggle toggle out +200 =0"}) {
            QStringList steps = QString::fromLatin1(row).split(u' ');
            const bool expanded = steps.takeLast() == u"=1";
            FloatingWidgetViewModel vm(*m_speech, m_clock);
            for (const QString &step : steps) {
                if (step == u"in" || step == u"out")
                    vm.setHovered(step == u"in");
                else if (step == u"force" || step == u"unforce")
                    vm.setForceExpanded(step == u"force");
                else if (step == u"toggle")
                    vm.toggleFullControls();
                else
                    m_clock.advance(std::chrono::milliseconds(step.mid(1).toInt()));
            }
            QCOMPARE(vm.isExpanded(), expanded);
            QCOMPARE(vm.isHovered(), steps.filter(QRegularExpression("^(in|out)$")).last() == u"in");
            QCOMPARE(vm.showFullControls(), steps.count(QStringLiteral("toggle")) == 1);
        }
    }

    // The widget's title for each state of the narration, on a controller whose speech server takes the
    // request and never answers.
    void titlesSubtitleAndSize()
    {
        QTcpServer silent;
        QVERIFY(silent.listen(QHostAddress::LocalHost));
        QVERIFY(m_keychain->save(QStringLiteral("sk-test"), KeychainKey::openAIAPIKey));
        for (const auto &[state, title] : {std::pair{"", "Ready"},
                                           {"generating", "Generating..."},
                                           {"playing", "Reading aloud"},
                                           {"paused", "Paused"},
                                           {"permission", "Permission required"},
                                           {"error", "Something went wrong."}}) {
            m_speech = makeSpeech(QUrl(u"http://127.0.0.1:%1"_qs.arg(silent.serverPort())));
            FloatingWidgetViewModel vm(*m_speech, m_clock);
            // What a view bound to the title shows: the value at each announcement.
            QStringList shown{vm.title()};
            connect(&vm, &FloatingWidgetViewModel::titleChanged, this, [&] { shown << vm.title(); });
            const QString s = QString::fromLatin1(state);
            if (s == u"generating") {
                m_speech->speak(QStringLiteral("Hello there."));
            } else if (s == u"playing" || s == u"paused") {
                m_speech->replayStoredAudio(silence(5));
                QTRY_VERIFY(m_speech->isPlaying());
                if (s == u"paused")
                    m_speech->togglePlayPause();
            } else if (s == u"permission") {
                m_speech->setCurrentError(SpeechError::make(SpeechError::accessibilityPermissionMissing));
            } else if (s == u"error") {
                m_speech->setCurrentError(SpeechError::makeNetworkError(QStringLiteral("offline")));
            }
            QTRY_COMPARE(shown.last(), QString::fromLatin1(title));
        }
        // The subtitle follows the voice and style; the widget is drawn full size while hovered or pinned.
        FloatingWidgetViewModel vm(*m_speech, m_clock);
        QSignalSpy subtitles(&vm, &FloatingWidgetViewModel::subtitleChanged);
        m_speech->setSelectedVoice(QStringLiteral("cedar"));
        m_speech->setSelectedVoiceStyle(VoiceStyle::Calm);
        QCOMPARE(vm.subtitle(), QStringLiteral("Cedar  ·  Calm"));
        QCOMPARE(subtitles.size(), 2);

        QSignalSpy size(&vm, &FloatingWidgetViewModel::showsExpandedChanged);
        QVERIFY(!vm.showsExpanded());
        vm.setExpanded(true);
        QVERIFY(vm.showsExpanded());
        vm.setExpanded(false);
        vm.setShowFullControls(true);
        QVERIFY(vm.showsExpanded());
        QCOMPARE(size.size(), 3);
    }

    // Skips and seeks on a real controller playing 10 s of audio, after this many seconds heard; -1: no
    // audio, and no seek at all.
    void seeking()
    {
        for (const auto &[heardSeconds, action, frame] :
             {std::tuple(3.0, "back", qint64(0)), // clamped to 0
              {7.0, "back", 48000},
              {2.0, "forward", 168000},
              {0.0, "seek 4", 96000},
              {0.0, "seek 60", 240000}, // past the end goes to the end
              {0.0, "seek 4", -1},
              {0.0, "track 0.4", 96000},  // a click at 40 % of the track
              {0.0, "track 1.5", 240000}, // a drag past the track's end
              {5.0, "track -0.2", 0}}) {  // and before its start
            m_speech = makeSpeech();
            FloatingWidgetViewModel vm(*m_speech, m_clock);
            if (frame >= 0) {
                m_speech->replayStoredAudio(silence(10));
                QTRY_VERIFY(m_speech->isPlaying());
                for (int i = 0; i < int(heardSeconds * 10); ++i)
                    m_sink->advance(2400);
            }
            QSignalSpy seeks(m_speech.get(), &SpeechManager::seekPerformed);
            const QString step = QString::fromLatin1(action);
            if (step == u"back")
                vm.skipBack();
            else if (step == u"forward")
                vm.skipForward();
            else if (step.startsWith(u"track"))
                vm.seekToFraction(step.mid(6).toDouble());
            else
                vm.seekToTime(step.mid(5).toDouble());
            if (frame < 0)
                QTest::qWait(150); // three seek debounces
            QTRY_COMPARE(seeks.size(), frame < 0 ? 0 : 1);
            QCOMPARE(seeks.isEmpty() ? -1 : seeks.first().first().toLongLong(), frame);
        }
    }

    // Each bar's red, green and blue, to two decimals: Default runs from white to grey 0.6, an unknown theme
    // falls back to Default, Sunset blends through its middle colour. Then the buttons' state and the labels.
    void barColorsAndPlayState()
    {
        const QStringList defaults{"1.00 1.00 1.00", "0.92 0.92 0.92", "0.84 0.84 0.84",
                                   "0.76 0.76 0.76", "0.68 0.68 0.68", "0.60 0.60 0.60"};
        FloatingWidgetViewModel vm(*m_speech, m_clock);
        QSignalSpy repaint(&vm, &FloatingWidgetViewModel::paletteChanged);
        for (const auto &[themeRaw, colors] :
             {std::pair(u"Default"_qs, defaults),
              {u"Plaid"_qs, defaults},
              {u"Sunset"_qs, QStringList{"1.00 0.50 0.20", "1.00 0.46 0.32", "1.00 0.42 0.44",
                                         "1.00 0.44 0.50", "1.00 0.52 0.50", "1.00 0.60 0.50"}}}) {
            m_speech->setWidgetThemeRawValue(themeRaw);
            QStringList shown;
            for (const QColor &c : vm.palette().barColors)
                shown << u"%1 %2 %3"_qs.arg(c.redF(), 0, 'f', 2)
                             .arg(c.greenF(), 0, 'f', 2)
                             .arg(c.blueF(), 0, 'f', 2);
            QCOMPARE(shown, colors);
        }
        repaint.clear();
        m_speech->setWidgetTheme(WidgetTheme::Crimson);
        QVERIFY(!repaint.isEmpty());
        // Processing, content, playing: the state the buttons show; processing wins over everything. Playing,
        // generating, the tallest bar: whether the waveform's timeline runs; bars fall until they reach 0.01.
        using P = FloatingWidgetViewModel::PlayState;
        const std::tuple<bool, bool, bool, P> states[] = {{true, true, true, P::Loading},
                                                          {true, false, false, P::Loading},
                                                          {false, false, true, P::Idle},
                                                          {false, true, true, P::Playing},
                                                          {false, true, false, P::Paused}};
        for (const auto &[processing, content, playing, state] : states)
            QCOMPARE(FloatingWidgetViewModel::playStateFor(processing, content, playing), state);
        const std::tuple<bool, bool, float, bool> timeline[] = {{false, false, 0.0f, false},
                                                                {false, false, 0.01f, false},
                                                                {false, false, 0.02f, true},
                                                                {true, false, 0.0f, true},
                                                                {false, true, 0.0f, true}};
        for (const auto &[playing, processing, tallestBar, runs] : timeline)
            QCOMPARE(WaveformView::shouldRun(playing, processing, {0, 0, tallestBar, 0, 0, 0}), runs);
        // The widget's time and speed, the pricing's hours (one hour, rounding) and prices (cents).
        const std::pair<QString, const char *> rows[] = {
            {WidgetFormat::timeLabel(65.4), "1:05"},           {WidgetFormat::timeLabel(-3), "0:03"},
            {WidgetFormat::timeLabel(59.5), "1:00"},           {WidgetFormat::timeLabel(3600), "60:00"},
            {WidgetFormat::speedLabel(2.0), "2.0x"},           {OnboardingPackage::hoursText(1.0), "1 hour"},
            {OnboardingPackage::hoursText(3.33), "3.3 hours"}, {OnboardingPackage::priceText(1999), "$19.99"},
            {OnboardingPackage::priceText(5), "$0.05"}};
        for (const auto &[shown, expected] : rows)
            QCOMPARE(shown, QString::fromUtf8(expected));
    }

    void waveformFollowsPlayback()
    {
        WaveformView view;
        view.setSpeech(m_speech.get());
        QVERIFY(!view.isRunning());
        m_speech->replayStoredAudio(silence(5));
        QTRY_VERIFY(m_speech->isPlaying());
        QVERIFY(view.isRunning());
        // No level for longer than the staleness threshold: the idle wave, between 0.2 and 0.35 of the
        // range above the minimum.
        view.advanceFrame(1000.0, 0.0);
        for (qreal h : view.barHeights())
            QVERIFY2(h >= 3 + 0.2 * 0.85 * 0.9 * 21 - 0.01 && h <= 3 + 0.35 * 21 + 0.01,
                     qPrintable(QString::number(h)));
        m_speech->stop();
        QVERIFY(!view.isRunning()); // reset on stop: nothing left to fall
        view.advanceFrame(1000.1, 0.0);
        QCOMPARE(view.barHeights(), QList<qreal>(WaveformView::kBarCount, 3.0));

        // The timeline's own frames, on the clock the levels are stamped with: loud audio being heard
        // lifts the bars above the idle wave.
        QByteArray loud = silence(5);
        auto *samples = reinterpret_cast<qint16 *>(loud.data());
        for (qsizetype i = 0; i < loud.size() / 2; ++i)
            samples[i] = (i / 24) % 2 ? 20000 : -20000;
        m_speech->replayStoredAudio(loud);
        QTRY_VERIFY([&] {
            m_sink->advance(1200);
            const QList<qreal> heights = view.barHeights();
            return *std::max_element(heights.begin(), heights.end()) > 3 + 0.35 * 21 + 1;
        }());
    }

    void windowPlacementShapeAndDrag_data()
    {
        QTest::addColumn<bool>("compositing");
        QTest::newRow("composited") << true;
        QTest::newRow("bare window manager") << false;
    }

    void windowPlacementShapeAndDrag()
    {
        QFETCH(bool, compositing);
        // An account server that knows every token.
        QTcpServer users;
        QVERIFY(users.listen(QHostAddress::LocalHost));
        connect(&users, &QTcpServer::newConnection, &users, [&users] {
            QTcpSocket *socket = users.nextPendingConnection();
            connect(socket, &QTcpSocket::readyRead, socket, [socket] {
                socket->write("HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nConnection: close\r\n"
                              "Content-Length: 30\r\n\r\n{\"id\":\"u1\",\"email\":\"a@b.test\"}");
                socket->disconnectFromHost();
            });
        });
        const auto auth = makeAuth(u"http://127.0.0.1:%1"_qs.arg(users.serverPort()));
        FloatingWindowController controller({.speech = m_speech.get(),
                                             .auth = auth.get(),
                                             .clock = &m_clock,
                                             .hints = std::make_unique<NullPanelHints>(compositing)});
        QVERIFY(!controller.window()); // loaded when first shown
        controller.showWidget();
        QQuickView *window = controller.window();
        QVERIFY2(window->status() == QQuickView::Ready, qPrintable(window->errors().value(0).toString()));
        QVERIFY(window->flags().testFlags(Qt::WindowDoesNotAcceptFocus | Qt::WindowStaysOnTopHint | Qt::Tool |
                                          Qt::FramelessWindowHint));
        QCOMPARE(window->mask().isEmpty(), compositing);
        if (!compositing) {
            QVERIFY(!window->mask().contains(QPoint(0, 0)));
            QVERIFY(window->mask().contains(QPoint(170, 70)));
        }

        // The sentence being heard grows the full controls downwards, until Settings switches it off. Where
        // it is placed and by how much it grows: tst_widgetdesktop.
        const QRect placed = window->geometry();
        m_speech->followAlong()->startComplete(QStringLiteral("One. Two."), 24000);
        controller.viewModel()->toggleFullControls();
        QCOMPARE(controller.viewModel()->followAlongText(), QStringLiteral("One."));
        QCOMPARE(window->mask().contains(QPoint(170, 170)), !compositing);
        AppearanceSettingsModel appearance(*m_speech, *m_defaults, {});
        appearance.setShowFollowAlong(false);
        QCOMPARE(m_defaults->boolean(QStringLiteral("showFollowAlong")), false);
        QCOMPARE(window->geometry(), placed);
        controller.viewModel()->toggleFullControls();

        FloatingWidgetViewModel *vm = controller.viewModel();
        QSignalSpy dragging(vm, &FloatingWidgetViewModel::isDraggingChanged);
        const QPoint start = window->position();
        controller.pressAt(QPointF(500, 60));
        controller.dragTo(QPointF(500, 60)); // no motion yet: still a click
        controller.release();
        QCOMPARE(dragging.size(), 0);
        controller.pressAt(QPointF(500, 60));
        controller.dragTo(QPointF(530, 80));
        QVERIFY(vm->isDragging());
        QCOMPARE(window->position(), start + QPoint(30, 20));
        controller.release();
        QVERIFY(!vm->isDragging());

        // Every sign-in brings it back to the top centre.
        controller.subscribeToAuthState();
        auth->handleCallback(QUrl(u"quillvox://auth/callback#access_token=a&refresh_token=r"_qs));
        QTRY_VERIFY(auth->isSignedIn());
        QCOMPARE(window->position(), placed.topLeft());

        controller.hideWidget();
        QVERIFY(!controller.window()); // released with its QML
    }

    // The onboarding flow: each step's main button, and "Back". The tutorial ends on pricing for an account
    // (none here: pricing as well, the own key being absent); completion completes onboarding.
    // A row: the step, where its main button leads, where "Back" leads, and "back" where that is shown.
    void steps()
    {
        for (const char *steps :
             {"welcome signIn welcome", "signIn signIn welcome back", "freeMinutes permissions freeMinutes",
              "permissions tutorial freeMinutes back", "tutorial pricing tutorial",
              "pricing completion pricing", "purchaseConfirmation completion purchaseConfirmation",
              "completion completion completion"}) {
            const QStringList row = QString::fromLatin1(steps).split(u' ');
            for (const bool forward : {true, false}) {
                const auto vm = model();
                reach(*vm, row[0]);
                QCOMPARE(vm->currentStepName(), row[0]);
                QCOMPARE(vm->canGoBack(), row.size() == 4);
                QSignalSpy completed(&AppEvents::shared(), &AppEvents::onboardingCompleted);
                if (forward)
                    vm->advance();
                else
                    vm->previousStep();
                QCOMPARE(vm->currentStepName(), row[forward ? 1 : 2]);
                QCOMPARE(completed.size(), forward && row[0] == u"completion" ? 1 : 0);
            }
        }
    }

    // What the tutorial's pickers show, decided here rather than in the views.
    void tutorialChoices()
    {
        const auto vm = model();
        // The default shortcut, and one whose key has a plus in its name.
        QCOMPARE(vm->shortcutKeys(), QStringList({"Ctrl", "Alt", "S"}));
        QCOMPARE(HotkeyManager::shortcutKeys(69, HotkeyManager::defaultModifiers),
                 QStringList({"Ctrl", "Alt", "Num +"}));
        const QVariantMap cedar = vm->voices().at(availableVoices().indexOf(u"cedar"_qs)).toMap();
        QCOMPARE(cedar.value(u"name"_qs), u"Cedar"_qs);
        QCOMPARE(cedar.value(u"id"_qs), u"cedar"_qs);
        QCOMPARE(vm->appearances().first().toMap().value(u"detail"_qs), u"Best for light backgrounds"_qs);
        const QVariantMap sunset = vm->themeItems().at(2).toMap();
        QCOMPARE(sunset.value(u"name"_qs), u"Sunset"_qs);
        QCOMPARE(sunset.value(u"colors"_qs).toList().first().value<QColor>(),
                 WidgetPalette::themeColorsOf(WidgetTheme::Sunset).front());
    }

    // The onboarding window as drawn, on a real session that hands the browser its pages: what a step
    // shows, and where its buttons lead.
    void onboardingAsDrawn_data()
    {
        QTest::addColumn<QString>("step");
        QTest::addColumn<QString>("action");
        QTest::addColumn<QStringList>("shown");
        QTest::addColumn<QString>("provider");
        const auto row = [](const char *name, const char *step, const char *action, const QStringList &shown,
                            const char *provider = "") {
            QTest::newRow(name) << QString::fromLatin1(step) << QString::fromLatin1(action) << shown
                                << QString::fromLatin1(provider);
        };
        for (const char *provider : {"Apple", "Google"})
            row(provider, "signIn", qPrintable(u"Continue with "_qs + QLatin1String(provider)),
                {"Signing in..."}, qPrintable(u"provider="_qs + QString::fromLatin1(provider).toLower()));
        row("a sign-in that fails says why", "signIn", "callback without tokens",
            {"Authentication failed: No tokens in callback", "Continue with Apple"});
        row("the packages with their figures and the popular badge", "pricing", "",
            {"Starter", "$5.00", "150 minutes", "2.5 hours", "Popular", "POPULAR", "$15.00", "500 minutes",
             "8 hours", "Pro", "$35.00", "1200 minutes", "20 hours"});
        row("a purchase without a session says so and is clickable again", "pricing", "Continue",
            {"Failed to generate authentication code", "Continue"});
    }

    void onboardingAsDrawn()
    {
        QFETCH(QString, step);
        QFETCH(QString, action);
        QFETCH(QStringList, shown);
        QList<QUrl> opened;
        const auto auth = makeAuth(u"https://auth.test"_qs, [&](const QUrl &url) { opened << url; });
        OnboardingWindow window({.auth = auth.get(), .clock = &m_clock});
        QCOMPARE(window.window()->status(), QQuickView::Ready);
        reach(*window.viewModel(), step);
        QQuickItem *root = window.window()->rootObject();
        if (action == u"callback without tokens") {
            auth->handleCallback(QUrl(u"quillvox://auth/callback"_qs));
        } else if (!action.isEmpty()) {
            QQuickItem *button = findShown(root, action);
            QVERIFY2(button, qPrintable(action));
            QVERIFY(QMetaObject::invokeMethod(button, "clicked"));
        }
        for (const QString &text : shown)
            QTRY_VERIFY2(findShown(root, text), qPrintable(text));
        QFETCH(QString, provider);
        QCOMPARE(opened.size(), provider.isEmpty() ? 0 : 1);
        if (!provider.isEmpty())
            QVERIFY2(opened.first().query().startsWith(provider), qPrintable(opened.first().toString()));
    }

    // Trust as the session answers it at each poll (the first answer is the construction's own check).
    void permissionPoll()
    {
        // The answers, the publications of a change and the trust at the end.
        const std::tuple<QList<bool>, int, bool> rows[] = {
            {{false, false, false, false}, 0, false},
            {{true, true, true, true}, 1, true},
            {{false, false, true, true}, 1, true},   // granted later
            {{false, true, true, false}, 2, false}}; // then lost
        for (const auto &[answers, publications, finally] : rows) {
            qsizetype asked = 0;
            const auto vm =
                model({.isTrusted = [&] { return answers.value(std::min(asked++, answers.size() - 1)); }});
            QSignalSpy published(vm.get(), &OnboardingViewModel::hasPermissionsChanged);
            QCoreApplication::processEvents();
            for (qsizetype tick = 1; tick < answers.size(); ++tick) {
                m_clock.advance(999ms);
                QCOMPARE(asked, tick);
                m_clock.advance(1ms);
                QCOMPARE(asked, tick + 1);
                QCoreApplication::processEvents();
            }
            QCOMPARE(int(published.count()), publications);
            QCOMPARE(vm->hasPermissions(), finally);
        }
    }

    // "Use my own API key": the flow moves on once the keyring holds the key, offers no way back to
    // free minutes it never had, and skips pricing unless there is an account as well.
    void ownKeyPath()
    {
        const auto vm = model({.keychain = m_keychain.get()});
        QSignalSpy settingsOpened(&AppEvents::shared(), &AppEvents::openSettingsWindow);
        vm->advance();
        vm->useOwnApiKey();
        QCOMPARE(settingsOpened.count(), 1);
        m_clock.advance(1s);
        QCOMPARE(vm->currentStepName(), QStringLiteral("signIn"));

        QVERIFY(m_keychain->save(QStringLiteral("sk-own"), KeychainKey::openAIAPIKey));
        m_clock.advance(1s);
        QCOMPARE(vm->currentStepName(), QStringLiteral("permissions"));
        QVERIFY(!vm->canGoBack());

        for (const QString &after : {u"completion"_qs, u"pricing"_qs}) {
            if (after == u"pricing")
                QVERIFY(m_keychain->save(QStringLiteral("token"), KeychainKey::accessToken));
            vm->goTo(OnboardingStep::tutorial);
            vm->advance();
            QCOMPARE(vm->currentStepName(), after);
        }
    }

    // A sign-in waiting for a browser the user closed is no dead end: the buttons come back after 10 s,
    // for each new attempt anew, and the first attempt's callback still counts.
    void signInButtonsComeBack()
    {
        const auto auth = makeAuth(u"http://127.0.0.1:9"_qs, [](const QUrl &) {});
        const auto vm = model({.auth = auth.get()});
        vm->advance();
        QVERIFY(vm->canSignIn());
        for (const bool google : {true, false}) {
            vm->signIn(google);
            QVERIFY(vm->isSigningIn() && !vm->canSignIn());
            m_clock.advance(9999ms);
            QVERIFY(!vm->canSignIn());
            m_clock.advance(1ms);
            QVERIFY(vm->canSignIn() && vm->isSigningIn()); // "Signing in..." stays
        }
        auth->handleCallback(QUrl(QStringLiteral("quillvox://auth/callback")));
        QVERIFY(!vm->isSigningIn() && vm->canSignIn());
    }

    // The purchase page is reached through the token exchange; characters outside the query set are
    // escaped.
    void purchase()
    {
        for (const auto &[packageId, escaped] :
             {std::pair(u"popular"_qs, u"popular"_qs), std::pair(u"a b#c"_qs, u"a%20b%23c"_qs)}) {
            const QUrl url =
                BalanceManager::packagePurchaseUrl(QUrl(u"https://svc.test/"_qs), u"c0de"_qs, packageId);
            QVERIFY(url.isValid());
            QCOMPARE(
                url.toString(QUrl::FullyEncoded),
                u"https://svc.test/api/auth/token-exchange?code=c0de&next=/api/credits/purchase-redirect?package="_qs +
                    escaped);
        }
        const auto vm = model();
        vm->goTo(OnboardingStep::pricing);
        vm->purchase(QStringLiteral("pro")); // no session: fails, but the package stays selected
        QCOMPARE(vm->purchaseError(), QStringLiteral("Failed to generate authentication code"));
        QVERIFY(!vm->purchasedPackage());
        Q_EMIT AppEvents::shared().onboardingPurchaseSuccess();
        QCOMPARE(vm->currentStep(), OnboardingStep::purchaseConfirmation);
        QCOMPARE(vm->purchasedPackage()->id, QStringLiteral("pro"));
        QCOMPARE(vm->purchasedMinutesText(), QStringLiteral("1200 minutes added to your account"));
    }
};

QTEST_MAIN(TestViewModels)
#include "tst_viewmodels.moc"
