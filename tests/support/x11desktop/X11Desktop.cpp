// SPDX-License-Identifier: GPL-3.0-or-later
#include "X11Desktop.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDebug>
#include <QFile>
#include <QStandardPaths>
#include <QTest>

QByteArray runProgram(const QString &program, const QStringList &arguments, int timeoutMs)
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        qWarning() << program << arguments << "did not finish";
        return {};
    }
    return process.readAllStandardOutput();
}

void xdotool(const QStringList &arguments)
{
    runProgram(QStringLiteral("xdotool"), arguments);
}

QByteArray clipboardBytes(const QString &target)
{
    return runProgram(QStringLiteral("xclip"), {"-selection", "clipboard", "-o", "-t", target});
}

QString desktopLacks(const QStringList &programs)
{
    if (qEnvironmentVariableIsEmpty("DISPLAY"))
        return QStringLiteral("needs the rig's X server");
    for (const QString &program : programs) {
        if (QStandardPaths::findExecutable(program).isEmpty())
            return program + u" is not installed";
    }
    return {};
}

bool startAccessibilityBus(ChildProcess &launcher)
{
    const QString name = QStringLiteral("org.a11y.Bus");
    QDBusConnectionInterface *bus = QDBusConnection::sessionBus().interface();
    if (!bus)
        return false;
    if (bus->isServiceRegistered(name))
        return true;
    launcher.process.start(QStringLiteral("/usr/libexec/at-spi-bus-launcher"), {"--launch-immediately"});
    return QTest::qWaitFor([&] { return bool(bus->isServiceRegistered(name)); }, 5000);
}

ChildProcess::~ChildProcess()
{
    if (process.state() == QProcess::NotRunning)
        return;
    process.closeWriteChannel();
    if (!process.waitForFinished(2000)) {
        process.kill();
        process.waitForFinished();
    }
}

bool ownClipboard(ChildProcess &owner, const QString &program, const ClipboardContent &content,
                  const QString &dir)
{
    QStringList arguments;
    for (const auto &[target, bytes] : content) {
        const QString path = dir + u"/clipboard-" + QString::number(arguments.size());
        QFile f(path);
        if (!f.open(QIODevice::WriteOnly) || f.write(bytes) != bytes.size())
            return false;
        arguments.append(target + u"=@" + path);
    }
    owner.process.start(program, arguments);
    return owner.process.waitForReadyRead(5000) && owner.process.readLine().trimmed() == "ready";
}

QByteArray openInMousepad(ChildProcess &editor, const QString &file)
{
    editor.process.start(QStringLiteral("mousepad"), {file});
    const QByteArray window = runProgram(QStringLiteral("xdotool"),
                                         {"search", "--sync", "--onlyvisible", "--class", "mousepad"}, 20000)
                                  .split('\n')
                                  .value(0);
    if (window.isEmpty())
        return {};
    xdotool({"windowactivate", "--sync", QString::fromLatin1(window)});
    // Focus lands a moment after activation.
    QTest::qWait(300);
    return window;
}

QRect waitForAccessibleControl(const QString &name, int index, int timeoutMs)
{
    QRect rect;
    if (!QTest::qWaitFor([&] { return !(rect = findAccessibleControl(name, index)).isEmpty(); }, timeoutMs))
        qWarning().noquote() << "no control called" << name;
    return rect;
}

bool showsAccessibleControl(const QString &name)
{
    return !waitForAccessibleControl(name).isEmpty();
}

bool clickAccessibleControl(const QString &name, int index)
{
    // "x:608 y:373 screen:0 window:..."
    const QList<QByteArray> fields = runProgram(QStringLiteral("xdotool"), {"getmouselocation"}).split(' ');
    QPoint at = fields.size() < 2 ? QPoint() : QPoint(fields[0].mid(2).toInt(), fields[1].mid(2).toInt());
    for (int look = 0; look < 3; ++look) {
        const QRect rect = waitForAccessibleControl(name, index);
        if (rect.isEmpty())
            return false;
        if (rect.center() == at)
            break;
        at = rect.center();
        // --sync waits for a movement, so the pointer is only sent where it is not.
        xdotool({"mousemove", "--sync", QString::number(at.x()), QString::number(at.y())});
        QTest::qWait(300);
    }
    xdotool({"click", "1"});
    return true;
}

bool watchAccessibleDescription(ChildProcess &watcher, const QString &name)
{
    watcher.process.start(QStringLiteral("/usr/bin/python3"),
                          {QStringLiteral(QUILLVOX_ATSPI_QUERY), "Quillvox", "watch", name});
    return watcher.process.waitForStarted();
}

QString focusedAccessibleName()
{
    return QString::fromUtf8(runProgram(QStringLiteral("/usr/bin/python3"),
                                        {QStringLiteral(QUILLVOX_ATSPI_QUERY), "Quillvox", "focused"})
                                 .trimmed());
}

QRect findAccessibleControl(const QString &name, int index)
{
    const QList<QByteArray> numbers =
        runProgram(QStringLiteral("/usr/bin/python3"),
                   {QStringLiteral(QUILLVOX_ATSPI_QUERY), "Quillvox", "find", name, QString::number(index)})
            .trimmed()
            .split(' ');
    if (numbers.size() != 4)
        return {};
    return QRect(numbers[0].toInt(), numbers[1].toInt(), numbers[2].toInt(), numbers[3].toInt());
}
