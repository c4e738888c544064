// SPDX-License-Identifier: GPL-3.0-or-later
#include "X11Desktop.h"

#include <QDebug>
#include <QFile>
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
