// SPDX-License-Identifier: GPL-3.0-or-later
#include "TestBrowser.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>

QString installTestBrowser(QProcessEnvironment &env)
{
    const QString config = env.value(QStringLiteral("XDG_CONFIG_HOME"));
    const QString data = env.value(QStringLiteral("XDG_DATA_HOME"));
    QFile appEntry(QStringLiteral(QUILLVOX_DESKTOP_ENTRY));
    if (config.isEmpty() || data.isEmpty() || !appEntry.open(QIODevice::ReadOnly))
        return {};
    QByteArray entry = appEntry.readAll();
    entry.replace("\nExec=quillvox ", QByteArray("\nExec=" QUILLVOX_EXECUTABLE " "));
    // The entry of a profile's instance is named after the bus name the app owns for that profile
    // (com.vantor.Quillvox.Profile_ and ten hex digits of the configuration folder's SHA-1), as D-Bus
    // activation requires.
    const QByteArray appEntryName =
        "com.vantor.Quillvox.Profile_" +
        QCryptographicHash::hash(QDir::cleanPath(config).toUtf8(), QCryptographicHash::Sha1)
            .toHex()
            .left(10) +
        ".desktop";
    const QString log = data + QStringLiteral("/quillvox-test-browser/opened.log");
    const std::pair<QString, QByteArray> files[] = {
        {data + QStringLiteral("/applications/") + QString::fromLatin1(appEntryName), entry},
        {data + QStringLiteral("/applications/quillvox-test-browser.desktop"),
         "[Desktop Entry]\nType=Application\nName=Test Browser\nExec=" QUILLVOX_TEST_BROWSER
         " %u\nMimeType=x-scheme-handler/http;x-scheme-handler/https;\n"},
        {config + QStringLiteral("/mimeapps.list"),
         "[Default Applications]\nx-scheme-handler/http=quillvox-test-browser.desktop\n"
         "x-scheme-handler/https=quillvox-test-browser.desktop\nx-scheme-handler/quillvox=" +
             appEntryName + '\n'},
        {log, {}}};
    for (const auto &[path, content] : files) {
        QFile file(path);
        if (!QDir().mkpath(QFileInfo(path).path()) ||
            !file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(content) != content.size())
            return {};
    }
    env.insert(QStringLiteral("QUILLVOX_TEST_BROWSER_LOG"), log);
    return log;
}
