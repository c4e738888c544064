// SPDX-License-Identifier: GPL-3.0-or-later
#include "SettingsShots.h"

#include "ShotSupport.h"
#include "account/KeychainHelper.h"
#include "core/UserDefaults.h"
#include "platform/null/input/NullGlobalHotKeys.h"
#include "records/HistoryManager.h"
#include "records/UsageManager.h"
#include "settings/ApiKeySettingsModel.h"
#include "settings/SettingsViewModel.h"
#include "settings/SettingsWindow.h"
#include "shortcuts/HotkeyManager.h"
#include "shortcuts/NarrationControls.h"
#include "speech/NarrationServices.h"
#include "speech/OpenAIServer.h"
#include "speech/SpeechManager.h"

#include <QGuiApplication>
#include <QKeyEvent>
#include <QPalette>
#include <QQuickItem>
#include <QQuickView>
#include <QTemporaryDir>
#include <QTextStream>

#include <linux/input-event-codes.h>

namespace {

// "CTRL+ALT+s" as Plasma shows it: "Ctrl+Alt+S".
QString plasmaWords(const QString &trigger)
{
    QStringList parts = trigger.split(u'+');
    for (QString &part : parts)
        part = part == u"LOGO" ? QStringLiteral("Meta") : part.left(1).toUpper() + part.mid(1).toLower();
    return parts.join(u'+');
}

// A desktop that binds keys by action, as Plasma's portal does: it gives every action the key asked
// for, in its own words, except Stop.
class PlasmaShortcuts final : public ActionShortcuts
{
public:
    void bind(const QList<Shortcut> &shortcuts) override
    {
        Assignments assigned;
        for (const Shortcut &shortcut : shortcuts) {
            if (shortcut.id != u"stop")
                assigned.insert(shortcut.id, plasmaWords(shortcut.preferredTrigger));
        }
        if (m_assigned)
            m_assigned(assigned);
    }
    void setAssignmentsHandler(std::function<void(const Assignments &)> handler) override
    {
        m_assigned = std::move(handler);
    }
    void setActivationHandler(std::function<void(const QString &)>) override {}

private:
    std::function<void(const Assignments &)> m_assigned;
};

} // namespace

int shootSettingsWindow(const QDir &out, const QString &suffix, SpeechManager &speech, UserDefaults &defaults,
                        KeychainHelper &keychain)
{
    QTemporaryDir dir;
    const QDateTime now = QDateTime::currentDateTime();
    HistoryManager history(defaults, dir.filePath(QStringLiteral("History")), [now] { return now; });
    const QStringList texts{
        QStringLiteral("The quick brown fox jumps over the lazy dog, and keeps running into the woods."),
        QStringLiteral("Chapter 3\nThe morning fog had not yet lifted when the ferry left the harbour."),
        QStringLiteral("Remember to send the quarterly report before Friday."),
    };
    for (int i = 0; i < texts.size(); ++i)
        history.addSession(texts.at(i), availableVoices().at(i * 2), 12.5 + 40 * i, QByteArray(4800, '\0'));
    UsageManager usage(defaults);
    for (int i = 0; i < 14; ++i)
        usage.recordNarration(180 + 37 * i);

    auto backend = std::make_unique<NullGlobalHotKeys>();
    backend->setTakenElsewhere({KEY_Q, NativeHotKey::ControlMask | NativeHotKey::AltMask});
    NoSelection selection;
    IdleNarrationControls controls;
    HotkeyManager hotkeys(defaults, std::move(backend), selection, controls);

    OfflineAccount account(keychain);

    keychain.save(QStringLiteral("sk-proj-example0000000000007f3a"), KeychainKey::openAIAPIKey);
    // About then shows the version skipped in the update window, with "Forget".
    defaults.setString(QStringLiteral("skippedVersion"), QStringLiteral("1.4.0"));
    SettingsServices services;
    services.speech = &speech;
    services.auth = &account.auth;
    services.balance = &account.balance;
    services.hotkeys = &hotkeys;
    services.keychain = &keychain;
    services.history = &history;
    services.usage = &usage;
    services.defaults = &defaults;
    services.openAIOrigin = QUrl(QStringLiteral("https://api.openai.com"));
    services.ownKeyChanged = [] {};
    services.captureProblem = [] { return QString(); };
    // sway: no global shortcuts for applications, so the Shortcuts section gives configuration lines.
    SettingsServices swayServices = services;
    swayServices.hotkeys = nullptr;
    SettingsServices gnomeServices = swayServices;
    // KDE Plasma: the desktop assigns the keys through its portal; here it left Stop without one.
    HotkeyManager plasmaHotkeys(defaults, std::make_unique<PlasmaShortcuts>(), selection, controls);
    SettingsServices plasmaServices = swayServices;
    plasmaServices.hotkeys = &plasmaHotkeys;
    SettingsServices serverServices = services;
    SettingsWindow settings(std::nullopt, std::move(services));
    settings.present();
    QQuickView &window = *settings.window();

    int written = 0;
    // One picture, `<stem><suffix>.png`, counted when it is written.
    const auto shoot = [&](QQuickView &view, const QString &stem) {
        const QString path = out.filePath(stem + suffix + QStringLiteral(".png"));
        if (view.grabWindow().save(path))
            ++written;
        else
            QTextStream(stderr) << "could not write " << path << Qt::endl;
    };
    const QPalette light = QGuiApplication::palette();
    const std::pair<QString, QPalette> appearances[] = {{QStringLiteral("light"), light},
                                                        {QStringLiteral("dark"), darkPalette()}};
    for (const auto &[appearance, palette] : appearances) {
        QGuiApplication::setPalette(palette);
        for (const QString &section : settings.viewModel()->sections()) {
            settings.viewModel()->selectLabel(section);
            settle(300);
            QString name = section.toLower();
            name.replace(u' ', u'-');
            shoot(window, QStringLiteral("settings-") + name + u'-' + appearance);
        }
        // The keyboard focus as Tab leaves it: the section list, then into the section.
        const std::tuple<QString, int, QString> focusShots[] = {
            {QStringLiteral("Voice"), 1, QStringLiteral("sidebar")},
            {QStringLiteral("Voice"), 2, QStringLiteral("voice")},
            {QStringLiteral("Appearance"), 3, QStringLiteral("appearance")},
            {QStringLiteral("Appearance"), 5, QStringLiteral("theme")},
            {QStringLiteral("Shortcuts"), 2, QStringLiteral("shortcuts")},
            {QStringLiteral("History"), 3, QStringLiteral("history")},
            {QStringLiteral("History"), 5, QStringLiteral("history-delete")},
        };
        for (const auto &[section, tabs, name] : focusShots) {
            settings.viewModel()->selectLabel(section);
            window.rootObject()->forceActiveFocus();
            settle(100);
            for (int i = 0; i < tabs; ++i) {
                QKeyEvent press(QEvent::KeyPress, Qt::Key_Tab, Qt::NoModifier);
                QKeyEvent release(QEvent::KeyRelease, Qt::Key_Tab, Qt::NoModifier);
                QGuiApplication::sendEvent(&window, &press);
                QGuiApplication::sendEvent(&window, &release);
            }
            settle(300);
            shoot(window, QStringLiteral("settings-focus-") + name + u'-' + appearance);
        }
        // The question before the history is cleared.
        settings.viewModel()->selectLabel(QStringLiteral("History"));
        settle(100);
        if (auto *confirmation =
                window.rootObject()->findChild<QObject *>(QStringLiteral("clearConfirmation"))) {
            QMetaObject::invokeMethod(confirmation, "open");
            settle(300);
            shoot(window, QStringLiteral("settings-history-confirm-") + appearance);
            QMetaObject::invokeMethod(confirmation, "close");
            settle(300);
        }
        window.rootObject()->forceActiveFocus();
    }
    QGuiApplication::setPalette(light);

    // A chosen server: the models it lists, open, and the request size it takes.
    const QString server = QStringLiteral("http://localhost:8880");
    defaults.setString(OpenAIServer::serverKey, server);
    SettingsWindow chosen(SettingsSection::apiKeys, std::move(serverServices));
    chosen.present();
    settle(300);
    // Listed after the window asked the server (which is not there) for them.
    defaults.setString(OpenAIServer::listedFromKey, server);
    defaults.setString(OpenAIServer::listedModelsKey, QStringLiteral("kokoro\ntts-1\ntts-1-hd"));
    chosen.viewModel()->apiKeys()->setModel(QStringLiteral("kokoro"));
    for (const auto &[appearance, palette] : appearances) {
        QGuiApplication::setPalette(palette);
        settle(300);
        auto *models = chosen.window()->rootObject()->findChild<QObject *>(QStringLiteral("serverModels"));
        if (auto *popup = models ? models->property("popup").value<QObject *>() : nullptr) {
            QMetaObject::invokeMethod(popup, "open");
            settle(300);
            shoot(*chosen.window(), QStringLiteral("settings-api-keys-server-") + appearance);
            QMetaObject::invokeMethod(popup, "close");
        }
    }
    QGuiApplication::setPalette(light);
    for (const QString &key : {OpenAIServer::serverKey, OpenAIServer::listedFromKey,
                               OpenAIServer::listedModelsKey, OpenAIServer::modelKey})
        defaults.remove(key);

    SettingsWindow plasma(SettingsSection::shortcuts, std::move(plasmaServices));
    plasma.present();
    settle(300);
    shoot(*plasma.window(), QStringLiteral("settings-shortcuts-plasma"));

    qputenv("SWAYSOCK", "/run/user/1000/sway-ipc.sock");
    SettingsWindow sway(SettingsSection::shortcuts, std::move(swayServices));
    sway.present();
    settle(300);
    shoot(*sway.window(), QStringLiteral("settings-shortcuts-sway"));
    qunsetenv("SWAYSOCK");

    // GNOME on Wayland without our Shell extension running: switched off, or not there at all.
    qputenv("XDG_CURRENT_DESKTOP", "GNOME");
    qputenv("WAYLAND_DISPLAY", "wayland-0");
    SettingsWindow gnome(SettingsSection::shortcuts, std::move(gnomeServices));
    gnome.present();
    for (const auto &[state, support] :
         {std::pair{QStringLiteral("off"), GnomeShellExtension::Support::NotEnabled},
          std::pair{QStringLiteral("missing"), GnomeShellExtension::Support::NotInstalled}}) {
        gnome.viewModel()->shortcuts()->setGnomeSupport(support);
        settle(300);
        shoot(*gnome.window(), QStringLiteral("settings-shortcuts-gnome-") + state);
    }
    qunsetenv("WAYLAND_DISPLAY");
    qunsetenv("XDG_CURRENT_DESKTOP");
    return written;
}
