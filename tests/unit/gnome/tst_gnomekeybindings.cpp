// SPDX-License-Identifier: GPL-3.0-or-later
// GNOME's custom keyboard shortcuts, written into GSettings' memory backend: ours are added or updated in
// place, and the user's own are left exactly as they were.
#include "platform/gnome/GnomeKeybindings.h"

#include <QTest>

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

class TestGnomeKeybindings : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
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
    }

    void addsAndUpdatesOnlyOurs()
    {
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

QTEST_GUILESS_MAIN(TestGnomeKeybindings)
#include "tst_gnomekeybindings.moc"
