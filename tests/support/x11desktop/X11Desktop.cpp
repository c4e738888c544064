// SPDX-License-Identifier: GPL-3.0-or-later
#include "X11Desktop.h"

#include <QDebug>
#include <QMap>

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

QByteArray xdotool(const QStringList &arguments, int timeoutMs)
{
    return runProgram(QStringLiteral("xdotool"), arguments, timeoutMs);
}

void pointAt(QPoint point)
{
    xdotool({"mousemove", QString::number(point.x()), QString::number(point.y())});
    QTest::qWait(150);
}

bool writeFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

QByteArray clipboardBytes(const QString &target)
{
    return runProgram(QStringLiteral("xclip"), {"-selection", "clipboard", "-o", "-t", target});
}

QString desktopLacks(const QStringList &programs)
{
    if (qEnvironmentVariableIsEmpty("DISPLAY"))
        return QStringLiteral("needs the rig's X server");
    for (const QString &program : programs)
        if (QStandardPaths::findExecutable(program).isEmpty())
            return program + u" is not installed";
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

bool ChildProcess::end(int timeoutMs)
{
    process.terminate();
    return process.state() == QProcess::NotRunning || process.waitForFinished(timeoutMs);
}

void ChildProcess::startAs(const QString &user, const QString &runtime, const QStringList &command,
                           const QString &log)
{
    process.setStandardOutputFile(runtime + u'/' + log);
    process.setStandardErrorFile(runtime + u'/' + log, QIODevice::Append);
    process.start(QStringLiteral("runuser"), QStringList{"-u", user, "--", "env", "-i", "PATH=/usr/bin:/bin",
                                                         "HOME=" + runtime, "XDG_RUNTIME_DIR=" + runtime} +
                                                 command);
}

bool ownClipboard(ChildProcess &owner, const QString &program, const ClipboardContent &content,
                  const QString &dir)
{
    QStringList arguments;
    for (const auto &[target, bytes] : content) {
        const QString path = dir + u"/clipboard-" + QString::number(arguments.size());
        if (!writeFile(path, bytes))
            return false;
        arguments.append(target + u'=' + path);
    }
    owner.process.start(program, arguments);
    return owner.process.waitForReadyRead(5000) && owner.process.readLine().trimmed() == "ready";
}

QByteArray openInMousepad(ChildProcess &editor, const QString &file, const QByteArray &text)
{
    if (!text.isEmpty() && !writeFile(file, text))
        return {};
    editor.process.start(QStringLiteral("mousepad"), {file});
    const QByteArray window =
        xdotool({"search", "--sync", "--onlyvisible", "--class", "mousepad"}, 20000).split('\n').value(0);
    if (window.isEmpty())
        return {};
    xdotool({"windowactivate", "--sync", QString::fromLatin1(window)});
    QTest::qWait(300); // focus lands a moment after activation
    return window;
}

QByteArrayList visibleWindows(const QString &title, int timeoutMs)
{
    QByteArrayList found;
    (void)QTest::qWaitFor(
        [&] {
            found = xdotool({"search", "--onlyvisible", "--name", u'^' + title + u'$'}).split('\n');
            found.removeAll(QByteArray());
            return !found.isEmpty();
        },
        timeoutMs);
    return found;
}

QRect windowGeometry(const QByteArray &window)
{
    QMap<QByteArray, int> v; // X=, Y=, WIDTH=, HEIGHT= lines
    for (const QByteArray &line :
         xdotool({"getwindowgeometry", "--shell", QString::fromLatin1(window)}).split('\n'))
        if (const QList<QByteArray> kv = line.split('='); kv.size() == 2)
            v.insert(kv[0], kv[1].toInt());
    return QRect(v.value("X"), v.value("Y"), v.value("WIDTH"), v.value("HEIGHT"));
}

QSize screenSize()
{
    const QList<QByteArray> size = xdotool({"getdisplaygeometry"}).trimmed().split(' ');
    return size.size() == 2 ? QSize(size[0].toInt(), size[1].toInt()) : QSize();
}
