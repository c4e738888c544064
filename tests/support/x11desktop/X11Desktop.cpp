// SPDX-License-Identifier: GPL-3.0-or-later
#include "X11Desktop.h"

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

QByteArrayList visibleWindows(const QString &title, int timeoutMs)
{
    QByteArrayList found;
    (void)QTest::qWaitFor(
        [&] {
            found = runProgram(QStringLiteral("xdotool"),
                               {"search", "--onlyvisible", "--name", u'^' + title + u'$'})
                        .split('\n');
            found.removeAll(QByteArray());
            return !found.isEmpty();
        },
        timeoutMs);
    return found;
}

QRect windowGeometry(const QByteArray &window)
{
    QRect r;
    for (const QByteArray &line :
         runProgram(QStringLiteral("xdotool"), {"getwindowgeometry", "--shell", QString::fromLatin1(window)})
             .split('\n')) {
        const QList<QByteArray> kv = line.split('=');
        if (kv.size() != 2)
            continue;
        const int v = kv[1].toInt();
        if (kv[0] == "X")
            r.moveLeft(v);
        else if (kv[0] == "Y")
            r.moveTop(v);
        else if (kv[0] == "WIDTH")
            r.setWidth(v);
        else if (kv[0] == "HEIGHT")
            r.setHeight(v);
    }
    return r;
}

QSize screenSize()
{
    const QList<QByteArray> size =
        runProgram(QStringLiteral("xdotool"), {"getdisplaygeometry"}).trimmed().split(' ');
    return size.size() == 2 ? QSize(size[0].toInt(), size[1].toInt()) : QSize();
}
