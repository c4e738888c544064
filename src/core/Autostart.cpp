// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/Autostart.h"

#include <QDir>
#include <QFile>
#include <QSaveFile>
#include <QStandardPaths>

namespace {

constexpr char kEntry[] = "[Desktop Entry]\n"
                          "Type=Application\n"
                          "Name=Quillvox\n"
                          "Comment=Reads selected text aloud\n"
                          "Exec=quillvox --autostart\n"
                          "Icon=quillvox\n"
                          "Terminal=false\n"
                          "X-GNOME-Autostart-enabled=true\n";

// The value of `key` in the [Desktop Entry] group; later groups (actions) do not count.
QString entryValue(const QByteArray &contents, QByteArrayView key)
{
    bool inEntry = false;
    for (const QByteArray &raw : contents.split('\n')) {
        const QByteArray line = raw.trimmed();
        if (line.startsWith('[')) {
            inEntry = line == "[Desktop Entry]";
            continue;
        }
        const qsizetype equals = line.indexOf('=');
        if (inEntry && equals > 0 && line.first(equals).trimmed() == key)
            return QString::fromUtf8(line.sliced(equals + 1).trimmed());
    }
    return {};
}

} // namespace

Autostart::Autostart(const QString &configFolder)
    : m_folder(configFolder.isEmpty()
                   ? QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation)
                   : configFolder)
{}

QString Autostart::entryPath() const
{
    return m_folder + QStringLiteral("/autostart/") + QString::fromLatin1(kFileName);
}

bool Autostart::isEnabled() const
{
    QFile file(entryPath());
    if (!file.open(QIODevice::ReadOnly))
        return false;
    const QByteArray contents = file.readAll();
    return entryValue(contents, "Hidden") != u"true" &&
           entryValue(contents, "X-GNOME-Autostart-enabled") != u"false";
}

bool Autostart::setEnabled(bool enabled)
{
    m_lastError.clear();
    const QString path = entryPath();
    if (!enabled) {
        QFile file(path);
        if (!file.exists() || file.remove())
            return true;
        m_lastError = file.errorString();
        return false;
    }
    if (!QDir().mkpath(m_folder + QStringLiteral("/autostart"))) {
        m_lastError = QStringLiteral("Cannot create the folder %1/autostart").arg(m_folder);
        return false;
    }
    // Whole or not at all: the session must never read half an entry.
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(kEntry) < 0 || !file.commit()) {
        m_lastError = file.errorString();
        return false;
    }
    return true;
}
