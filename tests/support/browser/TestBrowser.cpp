// SPDX-License-Identifier: GPL-3.0-or-later
#include "TestBrowser.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

bool writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    return QDir().mkpath(QFileInfo(path).path()) && file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
           file.write(content) == content.size();
}

} // namespace

QString installTestBrowser(QProcessEnvironment &env)
{
    const QString config = env.value(QStringLiteral("XDG_CONFIG_HOME"));
    const QString data = env.value(QStringLiteral("XDG_DATA_HOME"));
    if (config.isEmpty() || data.isEmpty())
        return {};
    const QString applications = data + QStringLiteral("/applications/");

    // The entry of a profile's instance is named after the bus name the app owns for that profile
    // (com.vantor.Quillvox.Profile_ and ten hex digits of the configuration folder's SHA-1), as D-Bus
    // activation requires.
    QFile appEntry(QStringLiteral(QUILLVOX_DESKTOP_ENTRY));
    if (!appEntry.open(QIODevice::ReadOnly))
        return {};
    QByteArray entry = appEntry.readAll();
    entry.replace("\nExec=quillvox ", QByteArray("\nExec=" QUILLVOX_EXECUTABLE " "));
    const QString appEntryName =
        QStringLiteral("com.vantor.Quillvox.Profile_") +
        QString::fromLatin1(
            QCryptographicHash::hash(QDir::cleanPath(config).toUtf8(), QCryptographicHash::Sha1)
                .toHex()
                .left(10)) +
        QStringLiteral(".desktop");

    const QByteArray browserEntry =
        "[Desktop Entry]\nType=Application\nName=Test Browser\nExec=" + QByteArray(QUILLVOX_TEST_BROWSER) +
        " %u\nMimeType=x-scheme-handler/http;x-scheme-handler/https;\n";
    const QByteArray defaults = "[Default Applications]\n"
                                "x-scheme-handler/http=quillvox-test-browser.desktop\n"
                                "x-scheme-handler/https=quillvox-test-browser.desktop\n"
                                "x-scheme-handler/quillvox=" +
                                appEntryName.toUtf8() + '\n';
    const QString log = data + QStringLiteral("/quillvox-test-browser/opened.log");
    if (!writeFile(applications + appEntryName, entry) ||
        !writeFile(applications + QStringLiteral("quillvox-test-browser.desktop"), browserEntry) ||
        !writeFile(config + QStringLiteral("/mimeapps.list"), defaults) || !writeFile(log, {}))
        return {};
    env.insert(QStringLiteral("QUILLVOX_TEST_BROWSER_LOG"), log);
    return log;
}
