// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/gnome/GnomeKeybindings.h"

#include "core/Logging.h"

#include <gio/gio.h>

#include <memory>

namespace GnomeKeybindings {

namespace {

constexpr char kListSchema[] = "org.gnome.settings-daemon.plugins.media-keys";
constexpr char kEntrySchema[] = "org.gnome.settings-daemon.plugins.media-keys.custom-keybinding";
constexpr char kListKey[] = "custom-keybindings";
constexpr char kBasePath[] = "/org/gnome/settings-daemon/plugins/media-keys/custom-keybindings/";
constexpr char kOwnPrefix[] = "quillvox-";

struct GObjectDeleter
{
    void operator()(gpointer object) const { g_object_unref(object); }
};
using Settings = std::unique_ptr<GSettings, GObjectDeleter>;

bool haveSchema(const char *id)
{
    GSettingsSchemaSource *source = g_settings_schema_source_get_default();
    if (!source)
        return false;
    GSettingsSchema *schema = g_settings_schema_source_lookup(source, id, TRUE);
    if (!schema)
        return false;
    g_settings_schema_unref(schema);
    return true;
}

bool haveSchemas()
{
    // GSettings aborts the process on an unknown schema, so ask first.
    if (haveSchema(kListSchema) && haveSchema(kEntrySchema))
        return true;
    qCWarning(lcShortcuts) << "GNOME's keyboard shortcut settings are not installed";
    return false;
}

QString pathOf(const QString &id)
{
    return QLatin1String(kBasePath) + QLatin1String(kOwnPrefix) + id + u'/';
}

QStringList strings(GSettings *settings, const char *key)
{
    gchar **values = g_settings_get_strv(settings, key);
    QStringList list;
    for (gchar **value = values; *value; ++value)
        list.append(QString::fromUtf8(*value));
    g_strfreev(values);
    return list;
}

QString string(GSettings *settings, const char *key)
{
    gchar *value = g_settings_get_string(settings, key);
    QString text = QString::fromUtf8(value);
    g_free(value);
    return text;
}

Settings entrySettings(const QString &path)
{
    return Settings(g_settings_new_with_path(kEntrySchema, path.toUtf8().constData()));
}

} // namespace

bool write(const QList<Entry> &entries)
{
    if (!haveSchemas())
        return false;
    const Settings list(g_settings_new(kListSchema));
    QStringList paths = strings(list.get(), kListKey);
    for (const Entry &entry : entries) {
        const QString path = pathOf(entry.id);
        const Settings settings = entrySettings(path);
        g_settings_set_string(settings.get(), "name", entry.name.toUtf8().constData());
        g_settings_set_string(settings.get(), "command", entry.command.toUtf8().constData());
        g_settings_set_string(settings.get(), "binding", entry.binding.toUtf8().constData());
        if (!paths.contains(path))
            paths.append(path);
    }
    QList<QByteArray> utf8;
    for (const QString &path : std::as_const(paths))
        utf8.append(path.toUtf8());
    std::vector<const gchar *> values;
    for (const QByteArray &path : std::as_const(utf8))
        values.push_back(path.constData());
    values.push_back(nullptr);
    g_settings_set_strv(list.get(), kListKey, values.data());
    g_settings_sync();
    return true;
}

QList<Entry> read()
{
    QList<Entry> entries;
    if (!haveSchemas())
        return entries;
    const Settings list(g_settings_new(kListSchema));
    const QString ownPath = QLatin1String(kBasePath) + QLatin1String(kOwnPrefix);
    for (const QString &path : strings(list.get(), kListKey)) {
        if (!path.startsWith(ownPath) || !path.endsWith(u'/'))
            continue;
        const Settings settings = entrySettings(path);
        entries.append({path.mid(ownPath.size()).chopped(1), string(settings.get(), "name"),
                        string(settings.get(), "command"), string(settings.get(), "binding")});
    }
    return entries;
}

} // namespace GnomeKeybindings
