// SPDX-License-Identifier: GPL-3.0-or-later
// Another application's clipboard for the desktop tests: owns CLIPBOARD with the targets and bytes given
// as target=file arguments, says "ready" on standard output and serves until standard input closes.
#include "platform/x11/X11Connection.h"
#include "platform/x11/X11SelectionOwner.h"

#include <QFile>

#include <iostream>
#include <string>

int main(int argc, char **argv)
{
    ClipboardContent content;
    for (int i = 1; i < argc; ++i) {
        const QByteArray argument(argv[i]);
        const qsizetype equals = argument.indexOf('=');
        if (equals <= 0)
            return 2;
        QFile file(QString::fromLocal8Bit(argument.mid(equals + 1)));
        if (!file.open(QIODevice::ReadOnly))
            return 2;
        content.append({QString::fromLatin1(argument.left(equals)), file.readAll()});
    }
    X11Connection clock;
    X11SelectionOwner owner;
    const std::optional<quint32> now =
        clock.serverTime(X11Connection::Clock::now() + std::chrono::seconds(2));
    if (!now || !owner.own(content, *now))
        return 1;
    std::cout << "ready" << std::endl;
    std::string line;
    while (std::getline(std::cin, line)) {
    }
    return 0;
}
