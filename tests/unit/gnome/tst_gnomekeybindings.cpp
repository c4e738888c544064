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

QStringList listed()
{
    GSettings *list = g_settings_new(kList);
    gchar **paths = g_settings_get_strv(list, "custom-keybindings");
    QStringList result;
    for (gchar **path = paths; *path; ++path)
        result.append(QString::fromUtf8(*path));
    g_strfreev(paths);
    g_object_unref(list);
    return result;
}

QString userValue(const char *key)
{
    GSettings *entry = g_settings_new_with_path(kEntry, kUserPath);
    gchar *value = g_settings_get_string(entry, key);
    const QString text = QString::fromUtf8(value);
    g_free(value);
    g_object_unref(entry);
    return text;
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
        GSettingsSchema *schema = source ? g_settings_schema_source_lookup(source, kList, TRUE) : nullptr;
        QVERIFY2(schema, "GNOME's media-keys schema is missing (gnome-settings-daemon-common)");
        g_settings_schema_unref(schema);

        // The user's own shortcut, made in GNOME Settings before Quillvox came.
        GSettings *entry = g_settings_new_with_path(kEntry, kUserPath);
        g_settings_set_string(entry, "name", "Terminal");
        g_settings_set_string(entry, "command", "gnome-terminal");
        g_settings_set_string(entry, "binding", "<Control><Alt>s");
        g_object_unref(entry);
        GSettings *list = g_settings_new(kList);
        const gchar *paths[] = {kUserPath, nullptr};
        g_settings_set_strv(list, "custom-keybindings", paths);
        g_object_unref(list);
    }

    void addsAndUpdatesOnlyOurs()
    {
        const QList<GnomeKeybindings::Entry> first{
            {"narrate-selection", "Quillvox: Narrate Selection", "quillvox --narrate-selection",
             "<Control><Alt>s"},
            {"toggle", "Quillvox: Play/Pause", "quillvox --toggle", "<Control><Alt>e"}};
        QVERIFY(GnomeKeybindings::write(first));
        const QString base =
            QStringLiteral("/org/gnome/settings-daemon/plugins/media-keys/custom-keybindings/");
        const QStringList expectedList{QString::fromLatin1(kUserPath), base + "quillvox-narrate-selection/",
                                       base + "quillvox-toggle/"};
        QCOMPARE(listed(), expectedList);
        QCOMPARE(GnomeKeybindings::read(), first);

        // Written again with a new key: updated in place, listed once.
        QList<GnomeKeybindings::Entry> second = first;
        second[0].binding = QStringLiteral("<Super>n");
        QVERIFY(GnomeKeybindings::write({second[0]}));
        QCOMPARE(listed(), expectedList);
        QCOMPARE(GnomeKeybindings::read(), second);

        QCOMPARE(userValue("name"), QStringLiteral("Terminal"));
        QCOMPARE(userValue("command"), QStringLiteral("gnome-terminal"));
        QCOMPARE(userValue("binding"), QStringLiteral("<Control><Alt>s"));
    }
};

QTEST_GUILESS_MAIN(TestGnomeKeybindings)
#include "tst_gnomekeybindings.moc"
