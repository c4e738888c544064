// SPDX-License-Identifier: GPL-3.0-or-later
// The executable's argument checking, run as a user runs it: once with no Quillvox running and once with
// an instance owning this profile's bus name, which must make no difference and hear nothing.
#include "app/SingleInstance.h"

#include <QProcess>
#include <QSignalSpy>
#include <QTest>

namespace {

struct Outcome
{
    int exitCode = -1;
    QString firstErrorLine;
    QByteArray output;
};

// Waits in the event loop, so that an instance in this process can answer the child.
Outcome run(const QStringList &arguments)
{
    QProcess process;
    QSignalSpy finished(&process, &QProcess::finished);
    process.start(QStringLiteral(QUILLVOX_EXECUTABLE), arguments);
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
    void wrongArguments_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("error");

        const auto row = [](const char *name, const QStringList &arguments, const char *error) {
            QTest::newRow(name) << arguments << QString::fromUtf8(error);
        };
        row("unknown option", {"--bogus"}, "quillvox: Unknown option 'bogus'.");
        row("bare word", {"hello"}, "quillvox: Unexpected argument 'hello'.");
        row("empty text", {"--speak", " "}, "quillvox: Nothing to narrate: the text is empty.");
        row("speed without speak", {"--speed", "3"}, "quillvox: --speed goes with --speak.");
        row("unsupported speed", {"--speak", "hi", "--speed", "3"},
            "quillvox: Unsupported speed \"3\". Speeds: 0.5, 1.0, 1.25, 1.5, 2.0");
        row("unknown voice", {"--speak", "hi", "--voice", "nosuch"},
            "quillvox: Unknown voice \"nosuch\". Voices: marin, cedar, alloy, echo, fable, nova, onyx, "
            "shimmer");
        row("two actions", {"--toggle", "--stop"}, "quillvox: Give one of --toggle, --stop at a time.");
        row("URL with an action", {"--toggle", "quillvox://auth/callback"},
            "quillvox: Unexpected argument 'quillvox://auth/callback'.");
    }

    void wrongArguments()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, error);

        const Outcome alone = run(arguments);
        QCOMPARE(alone.firstErrorLine, error);
        QCOMPARE(alone.exitCode, 1);

        SingleInstance instance;
        QStringList heard;
        QVERIFY(instance.listen([&heard](const QString &command, const QString &) {
            heard.append(command);
            return QJsonObject{{QStringLiteral("ok"), true}};
        }));
        const Outcome beside = run(arguments);
        QCOMPARE(beside.firstErrorLine, error);
        QCOMPARE(beside.exitCode, 1);
        QCOMPARE(heard, QStringList());
    }

    // A login start beside a running Quillvox leaves it alone; a plain start asks it for its window.
    void startBesideRunning_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QStringList>("heard");

        QTest::newRow("plain") << QStringList() << QStringList{QStringLiteral("activate")};
        QTest::newRow("at login") << QStringList{QStringLiteral("--autostart")}
                                  << QStringList{QStringLiteral("status")};
    }

    void startBesideRunning()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QStringList, heard);

        SingleInstance instance;
        QStringList commands;
        QVERIFY(instance.listen([&commands](const QString &command, const QString &) {
            commands.append(command);
            return QJsonObject{{QStringLiteral("ok"), true}};
        }));
        const Outcome outcome = run(arguments);
        QCOMPARE(outcome.exitCode, 0);
        QCOMPARE(commands, heard);
    }

    // The running instance's reply, as one line of JSON; none running is exit status 2.
    void status()
    {
        const Outcome alone = run({QStringLiteral("--status")});
        QCOMPARE(alone.exitCode, 2);
        QCOMPARE(alone.firstErrorLine, QStringLiteral("Quillvox is not running."));

        SingleInstance instance;
        QVERIFY(instance.listen([](const QString &command, const QString &) {
            return QJsonObject{{QStringLiteral("ok"), command == u"status"},
                               {QStringLiteral("status"), QJsonObject{{QStringLiteral("backend"), "none"}}}};
        }));
        const Outcome beside = run({QStringLiteral("--status")});
        QCOMPARE(beside.exitCode, 0);
        QCOMPARE(beside.output, QByteArray("{\"backend\":\"none\"}\n"));
    }
};

QTEST_GUILESS_MAIN(TestCommandLine)
#include "tst_commandline.moc"
