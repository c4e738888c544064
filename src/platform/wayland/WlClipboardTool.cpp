// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/wayland/WlClipboardTool.h"

#include "core/Logging.h"

#include <QProcess>

namespace WlClipboardTool {

Outcome run(const QString &program, const QStringList &arguments, std::chrono::milliseconds timeLimit,
            const QByteArray *input)
{
    QProcess process;
    process.start(program, arguments);
    if (input) {
        process.write(*input);
        process.closeWriteChannel();
    }
    if (!process.waitForFinished(int(timeLimit.count()))) {
        qCWarning(lcCapture).noquote() << program << "did not answer within" << timeLimit.count() << "ms";
        process.kill();
        process.waitForFinished(1000);
        return {};
    }
    if (process.exitStatus() != QProcess::NormalExit)
        return {};
    return {true, process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError()};
}

} // namespace WlClipboardTool
