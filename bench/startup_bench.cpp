// SPDX-License-Identifier: GPL-3.0-or-later
// Start-up as a user meets it: from the exec of the app binary to its tray item registered with the
// panel, here a StatusNotifierWatcher in this process, which notes the time in the registration call
// itself. The app starts in normal operation (onboarding done, a key stored, own-key mode), in a profile
// of the benchmark's own that persists across the runs, as a user's does; the first run fills the QML
// cache, so the median is the warm start. Each run then idles for two seconds before its resident set
// size (VmRSS) is read. Run inside the rig:
//
//     scripts/rig.sh -- build-tray/bench/startup_bench [runs, default 10]
#include "BenchTiming.h"
#include "StatusNotifierWatcher.h"

#include <QCoreApplication>
#include <QFile>
#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <vector>

namespace {

using namespace bench;

constexpr double kGoalMs = 400;
constexpr int kIdleMs = 2000;

int fail(const char *what)
{
    std::fprintf(stderr, "startup_bench: %s\n", what);
    return 1;
}

// VmRSS of a running process in MiB; none when it has gone.
std::optional<double> residentMiB(qint64 pid)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return std::nullopt;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').value(0).toDouble() / 1024.0;
    }
    return std::nullopt;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 10;
    if (qEnvironmentVariableIsEmpty("DISPLAY") || qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS"))
        return fail("needs an X server and a session bus: run it inside scripts/rig.sh");

    StatusNotifierWatcher watcher;
    if (!watcher.start())
        return fail(qPrintable(watcher.errorString()));

    QTemporaryDir profile;
    if (!profile.isValid())
        return fail("no temporary folder");
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), profile.filePath(QStringLiteral("config")));
    env.insert(QStringLiteral("XDG_DATA_HOME"), profile.filePath(QStringLiteral("data")));
    env.insert(QStringLiteral("XDG_CACHE_HOME"), profile.filePath(QStringLiteral("cache")));
    env.insert(QStringLiteral("QUILLVOX_KEYCHAIN_SERVICE"),
               QStringLiteral("com.vantor.quillvox.bench.startup"));
    // Nothing leaves the machine: nobody listens on the discard port.
    for (const char *origin : {"QUILLVOX_OPENAI_ORIGIN", "QUILLVOX_SERVICE_ORIGIN", "QUILLVOX_AUTH_ORIGIN",
                               "QUILLVOX_APPCAST_URL"})
        env.insert(QString::fromLatin1(origin), QStringLiteral("http://127.0.0.1:9"));

    QProcess setKey;
    setKey.setProcessEnvironment(env);
    setKey.start(QStringLiteral(QUILLVOX_EXECUTABLE), {QStringLiteral("--set-api-key")});
    setKey.write("local\n");
    setKey.closeWriteChannel();
    if (!setKey.waitForFinished(30000) || setKey.exitCode() != 0)
        return fail("quillvox --set-api-key failed: is a keyring running?");
    QSettings(profile.filePath(QStringLiteral("config/Quillvox/Quillvox.conf")), QSettings::IniFormat)
        .setValue(QStringLiteral("hasCompletedOnboarding"), true);

    std::vector<double> startMs;
    std::vector<double> rssMiB;
    Clock::time_point execAt;
    std::optional<Clock::time_point> registeredAt;
    QObject::connect(&watcher, &StatusNotifierWatcher::StatusNotifierItemRegistered, &watcher,
                     [&] { registeredAt = Clock::now(); });

    for (int run = 0; run < runs; ++run) {
        registeredAt.reset();
        QProcess app;
        app.setProcessEnvironment(env);
        app.setStandardOutputFile(QProcess::nullDevice());
        app.setStandardErrorFile(QProcess::nullDevice());
        execAt = Clock::now();
        app.start(QStringLiteral(QUILLVOX_EXECUTABLE), QStringList());
        if (!waitFor([&] { return registeredAt.has_value() || app.state() == QProcess::NotRunning; },
                     20000) ||
            !registeredAt)
            return fail("the tray item did not register within 20 s");
        startMs.push_back(msBetween(execAt, *registeredAt));

        waitFor([] { return false; }, kIdleMs);
        const std::optional<double> rss = residentMiB(app.processId());
        if (!rss)
            return fail("the app ended while idle");
        rssMiB.push_back(*rss);
        std::printf("  run %2d: %7.1f ms   %6.1f MiB\n", run + 1, startMs.back(), rssMiB.back());
        std::fflush(stdout);

        app.terminate();
        // The next start needs the single-instance name free.
        if (!app.waitForFinished(10000) || !waitFor([&] { return watcher.items().isEmpty(); }, 5000))
            return fail("the app did not end within 10 s of SIGTERM");
    }

    const double startMedian = median(startMs);
    const auto [least, most] = std::minmax_element(startMs.begin(), startMs.end());
    std::printf("Exec to tray item registered, %d runs\n", runs);
    std::printf("  median %7.1f ms   min %7.1f ms   max %7.1f ms   median / goal of %.0f ms: %.2f\n",
                startMedian, *least, *most, kGoalMs, startMedian / kGoalMs);
    const auto [rssLeast, rssMost] = std::minmax_element(rssMiB.begin(), rssMiB.end());
    std::printf("Resident set size, idle %d s after start-up: median %.1f MiB (min %.1f, max %.1f)\n",
                kIdleMs / 1000, median(rssMiB), *rssLeast, *rssMost);
    return 0;
}
