// SPDX-License-Identifier: GPL-3.0-or-later
// The executable's argument checking, run as a user runs it: once with no Quillvox running and once with
// an instance owning this profile's bus name, which must make no difference and hear nothing.
#include "app/SingleInstance.h"

#include <QProcess>
#include <QSignalSpy>
#include <QTest>
#include <QThread>

namespace {

struct Outcome
{
    int exitCode = -1;
    QString firstErrorLine;
    QByteArray output;
};

// Waits in the event loop, so that an instance in this process can answer the child.
Outcome run(const QStringList &arguments, const QByteArray &input = {})
{
    QProcess process;
    QSignalSpy finished(&process, &QProcess::finished);
    process.start(QStringLiteral(QUILLVOX_EXECUTABLE), arguments);
    process.write(input);
    process.closeWriteChannel();
    if (!finished.wait(30000))
        return {};
    return {process.exitCode(), QString::fromUtf8(process.readAllStandardError()).section(u'\n', 0, 0),
            process.readAllStandardOutput()};
}

} // namespace

class TestCommandLine : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // What reaches the running instance and what the user is told: help and version win over anything,
    // Qt's options are Qt's, "-" is standard input, and a refusal is one line with the instance's reason.
    void commands_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<QString>("instance"); // none, ok, refuse, hang
        QTest::addColumn<int>("exitCode");
        // The first line of standard error, else of standard output; a start's own are not looked at ("*").
        QTest::addColumn<QString>("printed");
        QTest::addColumn<QStringList>("heard");

        const auto row = [](const char *name, const QStringList &arguments, const QByteArray &input,
                            const char *instance, int exitCode, const char *printed,
                            const QStringList &heard) {
            QTest::newRow(name) << arguments << input << QString::fromLatin1(instance) << exitCode
                                << QString::fromUtf8(printed) << heard;
        };
        // Wrong arguments: the same refusal whether an instance runs or not, and it hears nothing.
        for (const char *instance : {"none", "ok"}) {
            const auto wrong = [&](const char *name, const QStringList &arguments, const char *error) {
                row(qPrintable(u"%1, %2"_qs.arg(QLatin1String(name), QLatin1String(instance))), arguments, {},
                    instance, 1, error, {});
            };
            wrong("unknown option", {"--bogus"}, "quillvox: Unknown option 'bogus'.");
            wrong("bare word", {"hello"}, "quillvox: Unexpected argument 'hello'.");
            wrong("empty text", {"--speak", " "}, "quillvox: Nothing to narrate: the text is empty.");
            wrong("speed without speak", {"--speed", "3"}, "quillvox: --speed goes with --speak.");
            wrong("unsupported speed", {"--speak", "hi", "--speed", "3"},
                  "quillvox: Unsupported speed \"3\". Speeds: 0.5, 1.0, 1.25, 1.5, 2.0");
            wrong("unknown voice", {"--speak", "hi", "--voice", "nosuch"},
                  "quillvox: Unknown voice \"nosuch\". Voices: marin, cedar, alloy, echo, fable, nova, onyx, "
                  "shimmer");
            wrong("two actions", {"--toggle", "--stop"}, "quillvox: Give one of --toggle, --stop at a time.");
            wrong("URL with an action", {"--toggle", "quillvox://auth/callback"},
                  "quillvox: Unexpected argument 'quillvox://auth/callback'.");
            wrong("wait without speak", {"--wait", "--toggle"}, "quillvox: --wait goes with --speak.");
        }
        const QString version = QStringLiteral("Quillvox " QUILLVOX_VERSION);
        row("help beside speak", {"--speak", "x", "--help"}, {}, "ok", 0, "Usage: quillvox [options] [url]",
            {});
        row("help beside two actions", {"--toggle", "--stop", "-h"}, {}, "ok", 0,
            "Usage: quillvox [options] [url]", {});
        row("version beside a wrong option", {"--bogus", "--version"}, {}, "none", 0, qPrintable(version),
            {});
        row("Qt's options", {"-platform", "offscreen", "-style=fusion", "--display", ":9", "--toggle"}, {},
            "ok", 0, "", {"toggle|"});
        row("none running", {"-platform", "offscreen", "--status"}, {}, "none", 2, "Quillvox is not running.",
            {});
        row("text from standard input", {"--speak", "-"}, "Read from a pipe.\n", "ok", 0, "",
            {"speak|Read from a pipe.\n"});
        row("blank standard input", {"--speak", "-"}, " \n", "ok", 1,
            "quillvox: Nothing to narrate: the text is empty.", {});
        row("standard input not UTF-8", {"--speak", "-"}, "\xff\xfe", "ok", 1,
            "quillvox: The text on standard input is not UTF-8.", {});
        row("speak refused", {"--speak", "Hello."}, {}, "refuse", 1, "quillvox: No key, and not signed in.",
            {"speak|Hello."});
        row("control refused", {"--narrate-selection"}, {}, "refuse", 1,
            "quillvox: No key, and not signed in.", {"narrate-selection|"});
        row("status", {"--status"}, {}, "ok", 0, R"({"backend":"none"})", {"status|"});
        row("status refused", {"--status"}, {}, "refuse", 1, "quillvox: No key, and not signed in.",
            {"status|"});
        row("not answering", {"--toggle"}, {}, "hang", 1, "quillvox: Quillvox is running but not answering.",
            {"toggle|"});
        // A plain start asks for the window and passes on the launcher's leave to bring one forward; a
        // login start leaves the running one alone.
        row("plain start", {}, {}, "ok", 0, "*", {"startup-id|launcher-42_TIME1234", "activate|"});
        row("start at login", {"--autostart"}, {}, "ok", 0, "*", {"status|"});
    }

    void commands()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, input);
        QFETCH(QString, instance);
        QFETCH(QString, printed);

        std::unique_ptr<SingleInstance> running;
        QStringList commands;
        if (instance != u"none") {
            running = std::make_unique<SingleInstance>();
            QVERIFY(running->listen([&](const QString &command, const QString &argument) {
                commands.append(command + u'|' + argument);
                if (instance == u"hang")
                    QThread::sleep(6);
                return QJsonObject{{u"ok"_qs, instance != u"refuse"},
                                   {u"error"_qs, u"No key, and not signed in."_qs}, // read only on a refusal
                                   {u"status"_qs, QJsonObject{{u"backend"_qs, "none"}}}};
            }));
            connect(running.get(), &SingleInstance::startupIdReceived, this, [&](const QByteArray &id) {
                commands.append(u"startup-id|"_qs + QString::fromLatin1(id));
            });
        }
        qputenv("DESKTOP_STARTUP_ID", "launcher-42_TIME1234");
        const Outcome outcome = run(arguments, input);
        qunsetenv("DESKTOP_STARTUP_ID");
        QTEST(outcome.exitCode, "exitCode");
        if (printed != u"*")
            QCOMPARE(outcome.firstErrorLine.isEmpty() ? QString::fromUtf8(outcome.output).section(u'\n', 0, 0)
                                                      : outcome.firstErrorLine,
                     printed);
        QTEST(commands, "heard");
    }
};

QTEST_GUILESS_MAIN(TestCommandLine)
#include "tst_commandline.moc"
