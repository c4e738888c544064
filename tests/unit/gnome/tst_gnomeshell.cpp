// SPDX-License-Identifier: GPL-3.0-or-later
// Our side of the GNOME Shell extension against the extension's own service (gnome-extension/service.js
// under gjs) with a scripted shell behind it, on a private bus: keys bound, pressed, released and bound
// again, and only Quillvox answered. Reading the selection is tested against the real shell
// (tst_gnomeshellsession). And the custom keyboard shortcuts GNOME runs `quillvox` with.
#include "platform/gnome/GnomeKeybindings.h"
#include "platform/gnome/GnomeShellExtension.h"
#include "platform/gnome/GnomeShellShortcuts.h"

#include <QDBusConnectionInterface>
#include <QDBusInterface>
#include <QDBusMetaType>
#include <QDBusReply>
#include <QProcess>
#include <QTest>

#include <memory>

#include <gio/gio.h>

namespace {

constexpr char kList[] = "org.gnome.settings-daemon.plugins.media-keys";
constexpr char kEntry[] = "org.gnome.settings-daemon.plugins.media-keys.custom-keybinding";
constexpr char kUserPath[] = "/org/gnome/settings-daemon/plugins/media-keys/custom-keybindings/custom0/";
constexpr const char *kUserKeys[] = {"name", "command", "binding"};

// The paths listed, then the user's own shortcut.
QStringList stored()
{
    g_autoptr(GSettings) list = g_settings_new(kList);
    g_autoptr(GSettings) entry = g_settings_new_with_path(kEntry, kUserPath);
    g_auto(GStrv) paths = g_settings_get_strv(list, "custom-keybindings");
    QStringList result;
    for (gchar **path = paths; *path; ++path)
        result.append(QString::fromUtf8(*path));
    for (const char *key : kUserKeys) {
        g_autofree gchar *value = g_settings_get_string(entry, key);
        result.append(QString::fromUtf8(value));
    }
    return result;
}

} // namespace

using GnomeShellExtension::KeyRequest;

class TestGnomeShell : public QObject
{
    Q_OBJECT

    QProcess m_gjs;
    std::unique_ptr<QDBusInterface> m_fake;

    QStringList grabs() const { return QDBusReply<QStringList>(m_fake->call(u"Grabs"_qs)).value(); }
    bool press(const char *accelerator) const
    {
        return QDBusReply<bool>(m_fake->call(u"Press"_qs, QString::fromLatin1(accelerator))).value();
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(QDBusConnection::sessionBus().isConnected(), "needs a session bus (dbus-run-session)");
        m_gjs.setProcessChannelMode(QProcess::ForwardedChannels);
        m_gjs.start(u"gjs"_qs,
                    {u"-m"_qs, QStringLiteral(QUILLVOX_SOURCE_DIR "/tests/unit/gnome/fakeshell.js")});
        QVERIFY2(m_gjs.waitForStarted(), "gjs is not installed");
        const QString test = u"com.vantor.Quillvox.Test"_qs;
        QTRY_VERIFY_WITH_TIMEOUT(QDBusConnection::sessionBus().interface()->isServiceRegistered(test), 10000);
        m_fake = std::make_unique<QDBusInterface>(test, u"/com/vantor/Quillvox/Test"_qs, test);
        QVERIFY(QDBusConnection::sessionBus().interface()->isServiceRegistered(
            QString::fromLatin1(GnomeShellExtension::kService)));
        qDBusRegisterMetaType<KeyRequest>();
        qDBusRegisterMetaType<QList<KeyRequest>>();
        // This test's own calls come from Quillvox.
        QVERIFY(QDBusConnection::sessionBus().registerService(u"com.vantor.Quillvox"_qs));
    }

    void cleanupTestCase()
    {
        m_gjs.kill();
        m_gjs.waitForFinished(5000);
    }

    // A trigger, the accelerator the shell reads and the label we show.
    void triggers()
    {
        const std::tuple<QString, QString, QString> rows[] = {
            {"LOGO+SHIFT+CTRL+ALT+F1", "<Super><Shift><Control><Alt>F1", "Super+Shift+Ctrl+Alt+F1"},
            {"ALT+space", "<Alt>space", "Alt+Space"},
            {"CTRL+ALT+", "", "Ctrl+Alt+"}, // no key
            {"HYPER+s", "", "HYPER+S"}};    // unknown modifier
        for (const auto &[trigger, accelerator, label] : rows) {
            QCOMPARE(GnomeShellShortcuts::accelerator(trigger), accelerator);
            QCOMPARE(GnomeShellShortcuts::label(trigger), label);
        }
    }

    // The selection and the keys only for Quillvox: our own calls and a profile's are answered (the cases
    // below, and tst_gnomeshellsession through the real shell). A name outside its namespace, or a profile's
    // a digit short, is refused. The extension's own name is taken: owning it is no way in either way.
    void answersQuillvoxOnly()
    {
        const auto message = [](const char *method) {
            return QDBusMessage::createMethodCall(QString::fromLatin1(GnomeShellExtension::kService),
                                                  QString::fromLatin1(GnomeShellExtension::kPath),
                                                  QString::fromLatin1(GnomeShellExtension::kInterface),
                                                  QString::fromLatin1(method));
        };
        const QString denied = u"org.freedesktop.DBus.Error.AccessDenied"_qs;
        for (const char *name :
             {"org.example.Notes", "com.vantor.Quillvox.Profile_0a1b2c3d4", "com.vantor.Quillvox.Shell"}) {
            const QString connectionName = u"caller "_qs + QString::fromLatin1(name);
            {
                QDBusConnection caller =
                    QDBusConnection::connectToBus(QDBusConnection::SessionBus, connectionName);
                if (QLatin1String(name) != QLatin1String(GnomeShellExtension::kService))
                    QVERIFY(caller.registerService(QString::fromLatin1(name)));
                QCOMPARE(caller.call(message("ReadSelection")).errorName(), denied);
                QCOMPARE(caller.call(message("BindShortcuts") << QVariant::fromValue(QList<KeyRequest>()))
                             .errorName(),
                         denied);
            }
            QDBusConnection::disconnectFromBus(connectionName);
        }
    }

    // The shell takes the keys it can; presses reach us by id (each its own: tst_gnomeshellsession); a new
    // set replaces the old one; and a key another program holds, or that no longer is ours, runs nothing.
    // Switched off, the extension's keys are gone and we say so; switched on again, it gets our keys back
    // without being asked.
    void bindsPressesAndRebinds()
    {
        GnomeShellShortcuts shortcuts;
        QList<ActionShortcuts::Assignments> assignments;
        QStringList pressed;
        shortcuts.setAssignmentsHandler(
            [&](const ActionShortcuts::Assignments &a) { assignments.append(a); });
        shortcuts.setActivationHandler([&](const QString &id) { pressed.append(id); });

        shortcuts.bind({{"narrate-selection", "Narrate Selection", "CTRL+ALT+s"},
                        {"toggle", "Play/Pause", "CTRL+ALT+e"},
                        {"stop", "Stop", "LOGO+l"}});
        QTRY_COMPARE(assignments.size(), 1);
        QCOMPARE(assignments.last(), (ActionShortcuts::Assignments{{"narrate-selection", "Ctrl+Alt+S"},
                                                                   {"toggle", "Ctrl+Alt+E"}}));

        const ActionShortcuts::Assignments rebound{{"narrate-selection", "Ctrl+Alt+D"}};
        shortcuts.bind({{"narrate-selection", "Narrate Selection", "CTRL+ALT+d"}});
        QTRY_COMPARE(assignments.size(), 2);
        QCOMPARE(assignments.last(), rebound);
        QCOMPARE(grabs(), QStringList{"<Control><Alt>d"});
        QVERIFY(!press("<Control><Alt>s") && press("<Control><Alt>d"));
        QTRY_COMPARE(pressed, QStringList{"narrate-selection"});

        QVERIFY(m_fake->call(u"SetEnabled"_qs, false).errorName().isEmpty());
        QTRY_COMPARE(assignments.size(), 3);
        QVERIFY(assignments.last().isEmpty() && grabs().isEmpty());
        QVERIFY(m_fake->call(u"SetEnabled"_qs, true).errorName().isEmpty());
        QTRY_COMPARE(assignments.size(), 4);
        QCOMPARE(assignments.last(), rebound);
        QCOMPARE(grabs(), QStringList{"<Control><Alt>d"});
    }

    // A Quillvox that quits (or crashes) leaves no key behind.
    void releasesTheKeysOfAClientThatLeft()
    {
        {
            QDBusConnection other = QDBusConnection::connectToBus(QDBusConnection::SessionBus, u"leaving"_qs);
            QVERIFY(other.registerService(u"com.vantor.Quillvox.Profile_0123456789"_qs));
            GnomeShellShortcuts shortcuts(other);
            shortcuts.bind({{"stop", "Stop", "CTRL+ALT+q"}});
            QTRY_COMPARE(grabs(), QStringList{"<Control><Alt>q"});
        }
        QDBusConnection::disconnectFromBus(u"leaving"_qs);
        QTRY_VERIFY(grabs().isEmpty());
    }

    // GNOME's custom keyboard shortcuts, written into GSettings' memory backend: ours are added or updated
    // in place, and the user's own are left exactly as they were.
    void addsAndUpdatesOnlyOurs()
    {
        qputenv("GSETTINGS_BACKEND", "memory");
        GSettingsSchemaSource *source = g_settings_schema_source_get_default();
        g_autoptr(GSettingsSchema) schema =
            source ? g_settings_schema_source_lookup(source, kList, TRUE) : nullptr;
        QVERIFY2(schema, "GNOME's media-keys schema is missing (gnome-settings-daemon-common)");

        // The user's own shortcut, made in GNOME Settings before Quillvox came.
        g_autoptr(GSettings) entry = g_settings_new_with_path(kEntry, kUserPath);
        const char *values[] = {"Terminal", "gnome-terminal", "<Control><Alt>s"};
        for (int i = 0; i < 3; ++i)
            g_settings_set_string(entry, kUserKeys[i], values[i]);
        g_autoptr(GSettings) list = g_settings_new(kList);
        const gchar *paths[] = {kUserPath, nullptr};
        g_settings_set_strv(list, "custom-keybindings", paths);

        const QList<GnomeKeybindings::Entry> first{
            {"narrate-selection", "Quillvox: Narrate Selection", "quillvox --narrate-selection",
             "<Control><Alt>s"},
            {"toggle", "Quillvox: Play/Pause", "quillvox --toggle", "<Control><Alt>e"}};
        QVERIFY(GnomeKeybindings::write(first));
        const QString base = u"/org/gnome/settings-daemon/plugins/media-keys/custom-keybindings/"_qs;
        const QStringList expected{QString::fromLatin1(kUserPath),
                                   base + "quillvox-narrate-selection/",
                                   base + "quillvox-toggle/",
                                   "Terminal",
                                   "gnome-terminal",
                                   "<Control><Alt>s"};
        QCOMPARE(stored(), expected);
        QCOMPARE(GnomeKeybindings::read(), first);

        // Written again with a new key: updated in place, listed once.
        QList<GnomeKeybindings::Entry> second = first;
        second[0].binding = u"<Super>n"_qs;
        QVERIFY(GnomeKeybindings::write({second[0]}));
        QCOMPARE(stored(), expected);
        QCOMPARE(GnomeKeybindings::read(), second);
    }
};

QTEST_GUILESS_MAIN(TestGnomeShell)
#include "tst_gnomeshell.moc"
