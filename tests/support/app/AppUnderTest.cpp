// SPDX-License-Identifier: GPL-3.0-or-later
#include "AppUnderTest.h"
#include "StopProcess.h"

#include "core/UserDefaults.h"

#include <QDBusConnectionInterface>
#include <QDebug>
#include <QJsonDocument>

#include <sys/prctl.h>

#include <algorithm>
#include <csignal>

namespace {

QByteArray atspiQuery(const QStringList &arguments)
{
    return runProgram(QStringLiteral("/usr/bin/python3"),
                      QStringList{QStringLiteral(QUILLVOX_ATSPI_QUERY), QStringLiteral("Quillvox")} +
                          arguments)
        .trimmed();
}

// Starts the AT-SPI bus in `launcher` unless the session bus has one already.
bool startAccessibilityBus(ChildProcess &launcher)
{
    const QString name = QStringLiteral("org.a11y.Bus");
    QDBusConnectionInterface *bus = QDBusConnection::sessionBus().interface();
    if (!bus || bus->isServiceRegistered(name))
        return bus;
    launcher.process.start(QStringLiteral("/usr/libexec/at-spi-bus-launcher"), {"--launch-immediately"});
    return QTest::qWaitFor([&] { return bool(bus->isServiceRegistered(name)); }, 5000);
}

} // namespace

AppUnderTest::AppUnderTest(Accessibility accessibility, const QString &program)
    : env(QProcessEnvironment::systemEnvironment())
    , m_program(program)
    , m_accessible(accessibility == Accessibility::On)
{
    env.insert(QStringLiteral("QUILLVOX_AUDIO_OUTPUT"), QStringLiteral("null"));
    if (m_accessible)
        env.insert(QStringLiteral("QT_LINUX_ACCESSIBILITY_ALWAYS_ON"), QStringLiteral("1"));
    m_process.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGKILL); });
}

AppUnderTest::~AppUnderTest()
{
    stop();
    if (QTest::currentTestFailed())
        qInfo().noquote() << "app output:\n" << output();
}

void AppUnderTest::usePulse(const QString &address)
{
    env.insert(QStringLiteral("PULSE_SERVER"), address);
    env.insert(QStringLiteral("QUILLVOX_AUDIO_OUTPUT"), QStringLiteral("pulse"));
}

QString AppUnderTest::storeKey(const QString &key) const
{
    const Run stored = run({QStringLiteral("--set-api-key")}, key.toUtf8() + '\n');
    return stored.exitCode == 0 ? QString() : QStringLiteral("--set-api-key failed: ") + stored.err;
}

void AppUnderTest::setSettings(const QVariantMap &settings, bool fresh)
{
    if (fresh)
        QFile::remove(UserDefaults::standardFilePath());
    UserDefaults defaults(UserDefaults::standardFilePath());
    for (auto it = settings.begin(); it != settings.end(); ++it) {
        if (it->typeId() == QMetaType::Bool)
            defaults.setBoolean(it.key(), it->toBool());
        else
            defaults.setString(it.key(), it->toString());
    }
    defaults.sync();
}

bool AppUnderTest::start(const QStringList &arguments)
{
    if (m_accessible && !startAccessibilityBus(m_accessibilityBus))
        return false;
    launch(arguments);
    Run asked;
    const auto answers = [&] {
        asked = run({QStringLiteral("--status")});
        return !isRunning() || asked.exitCode == 0;
    };
    if (QTest::qWaitFor(answers, 45000) && isRunning())
        return true;
    qWarning().noquote() << m_program << "did not answer --status (" << asked.exitCode << asked.err << "):\n"
                         << output();
    return false;
}

void AppUnderTest::launch(const QStringList &arguments)
{
    const QString log = m_dir.filePath(QStringLiteral("app.log"));
    m_process.setStandardOutputFile(log, QIODevice::Append);
    m_process.setStandardErrorFile(log, QIODevice::Append);
    m_process.setProcessEnvironment(env);
    m_process.start(m_program, arguments);
}

bool AppUnderTest::stop()
{
    return !isRunning() || stopProcess(m_process, 10000) == 0;
}

QString AppUnderTest::output() const
{
    QFile log(m_dir.filePath(QStringLiteral("app.log")));
    return log.open(QIODevice::ReadOnly) ? QString::fromUtf8(log.readAll()) : QString();
}

AppUnderTest::Run AppUnderTest::run(const QStringList &arguments, const QByteArray &input) const
{
    QProcess process;
    process.setProcessEnvironment(env);
    process.start(m_program, arguments);
    process.write(input);
    process.closeWriteChannel();
    Run result;
    // With the event loop running: the app may be asking a D-Bus service of this test meanwhile.
    if (!QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, 30000)) {
        process.kill();
        process.waitForFinished();
    } else if (process.exitStatus() == QProcess::NormalExit) {
        result.exitCode = process.exitCode();
    }
    result.out = process.readAllStandardOutput();
    result.err = process.readAllStandardError();
    return result;
}

QJsonObject AppUnderTest::status() const
{
    return QJsonDocument::fromJson(run({QStringLiteral("--status")}).out).object();
}

QRect AppUnderTest::control(const QString &name, int index)
{
    const QList<QByteArray> n = atspiQuery({"find", name, QString::number(index)}).split(' ');
    return n.size() == 4 ? QRect(n[0].toInt(), n[1].toInt(), n[2].toInt(), n[3].toInt()) : QRect();
}

QRect AppUnderTest::waitForControl(const QString &name, int index, int timeoutMs)
{
    QRect rect;
    if (!QTest::qWaitFor([&] { return !(rect = control(name, index)).isEmpty(); }, timeoutMs))
        qWarning().noquote() << "no control called" << name;
    return rect;
}

bool AppUnderTest::click(const QString &name, int index)
{
    QRect at;
    for (int look = 0; look < 3; ++look) {
        const QRect rect = waitForControl(name, index);
        if (rect.isEmpty())
            return false;
        if (rect == at)
            break;
        at = rect;
        pointAt(at.center());
        QTest::qWait(150);
    }
    xdotool({"click", "1"});
    return true;
}

bool AppUnderTest::walk(const QStringList &steps)
{
    return std::all_of(steps.begin(), steps.end(), [](const QString &step) {
        return step.startsWith(u'=') ? shows(step.mid(1)) : click(step);
    });
}

QString AppUnderTest::focusedName()
{
    return QString::fromUtf8(atspiQuery({"focused"}));
}

bool AppUnderTest::watchDescription(ChildProcess &watcher, const QString &name)
{
    watcher.process.start(QStringLiteral("/usr/bin/python3"),
                          {QStringLiteral(QUILLVOX_ATSPI_QUERY), "Quillvox", "watch", name});
    return watcher.process.waitForStarted();
}

QProcessEnvironment waylandClient(QProcessEnvironment env, const QString &socket)
{
    env.remove(QStringLiteral("DISPLAY"));
    env.insert(QStringLiteral("WAYLAND_DISPLAY"), socket);
    env.insert(QStringLiteral("XDG_SESSION_TYPE"), QStringLiteral("wayland"));
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("wayland"));
    return env;
}
