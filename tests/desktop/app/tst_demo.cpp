// SPDX-License-Identifier: GPL-3.0-or-later
// README's first command as a newcomer runs it: scripts/run-demo.sh (on the tests' build rather than
// building again) signs in to its dev server, narrates the welcome and starts Quillvox; the widget then
// sits at the top centre, and text selected in mousepad is narrated with Ctrl+Alt+S.
#include "X11Desktop.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <unistd.h>

namespace {

constexpr int kWidgetWidth = 340;
constexpr int kWidgetTop = 40;
const QString kLine = QStringLiteral("The demo reads this line through its own dev server account.");

QStringList outputLines(QProcess &process)
{
    QStringList lines;
    while (process.canReadLine())
        lines.append(QString::fromUtf8(process.readLine()).trimmed());
    return lines;
}

} // namespace

class TestDemo : public QObject
{
    Q_OBJECT

    QTemporaryDir m_profile{QDir::tempPath() + QStringLiteral("/qv-demo-XXXXXX")};
    QProcess m_demo;
    ChildProcess m_editor;
    QStringList m_printed;

    // The profile's variables, as the demo prints them for commands from another terminal.
    QProcessEnvironment profileEnvironment() const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        for (const char *folder : {"config", "data", "cache"})
            env.insert(QStringLiteral("XDG_%1_HOME").arg(QString::fromLatin1(folder).toUpper()),
                       m_profile.filePath(QString::fromLatin1(folder)));
        env.insert(QStringLiteral("QUILLVOX_KEYCHAIN_SERVICE"), QStringLiteral("com.vantor.quillvox.demo"));
        return env;
    }

    QJsonObject status() const
    {
        QProcess process;
        process.setProcessEnvironment(profileEnvironment());
        process.start(QStringLiteral(QUILLVOX_EXECUTABLE), {QStringLiteral("--status")});
        process.waitForFinished(10000);
        return QJsonDocument::fromJson(process.readAllStandardOutput()).object();
    }

    // The texts the demo's dev server was asked to speak through the service.
    QStringList narratedTexts() const
    {
        QStringList texts;
        QFile log(m_profile.filePath(QStringLiteral("devserver.log")));
        if (!log.open(QIODevice::ReadOnly))
            return texts;
        while (!log.atEnd()) {
            const QJsonObject record = QJsonDocument::fromJson(log.readLine()).object();
            if (record.value(QLatin1String("path")).toString() != u"/api/tts/stream")
                continue;
            const QByteArray body = record.value(QLatin1String("body")).toString().toUtf8();
            texts.append(QJsonDocument::fromJson(body).object().value(QLatin1String("input")).toString());
        }
        return texts;
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (const QString lack = desktopLacks({"mousepad", "xdotool", "curl", "secret-tool"});
            !lack.isEmpty())
            QSKIP(qPrintable(lack));
        QVERIFY(m_profile.isValid());
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("BUILD_DIR"),
                   QFileInfo(QStringLiteral(QUILLVOX_EXECUTABLE)).absoluteDir().absoluteFilePath(u".."_qs));
        env.insert(QStringLiteral("QUILLVOX_DEMO_PREBUILT"), QStringLiteral("1"));
        env.insert(QStringLiteral("DEMO_PROFILE"), m_profile.path());
        m_demo.setProcessEnvironment(env);
        m_demo.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        // A group of its own, so that the test's Ctrl+C reaches the demo and the Quillvox it runs.
        m_demo.setChildProcessModifier([] { ::setpgid(0, 0); });
        m_demo.start(QStringLiteral(QUILLVOX_SOURCE_DIR "/scripts/run-demo.sh"), QStringList());
        QVERIFY(m_demo.waitForStarted());
        // The welcome is heard before Quillvox starts.
        QVERIFY(QTest::qWaitFor(
            [this] {
                m_printed += outputLines(m_demo);
                return m_printed.contains(u"Quillvox is running (Ctrl+C quits). Select text anywhere and "
                                          u"press Ctrl+Alt+S; or from another"_qs) ||
                       m_demo.state() == QProcess::NotRunning;
            },
            90000));
        QVERIFY2(m_demo.state() == QProcess::Running, qPrintable(m_printed.join(u'\n')));
    }

    void cleanupTestCase()
    {
        if (m_demo.state() == QProcess::NotRunning)
            return;
        ::kill(-pid_t(m_demo.processId()), SIGINT);
        if (!m_demo.waitForFinished(10000)) {
            ::kill(-pid_t(m_demo.processId()), SIGKILL);
            m_demo.waitForFinished();
        }
    }

    void printsTheProfileAndSignsIn()
    {
        QVERIFY(m_printed.contains(u"Signed in to the dev server's account (its balance: 20 minutes)."_qs));
        QVERIFY(m_printed.contains(
            QStringLiteral("XDG_CONFIG_HOME=%1/config XDG_DATA_HOME=%1/data \\").arg(m_profile.path())));
        QVERIFY(narratedTexts().value(0).startsWith(u"Welcome to Quillvox."));
        QTRY_COMPARE_WITH_TIMEOUT(status()[u"auth"][u"state"].toString(), u"signedIn"_qs, 15000);
        QCOMPARE(status()[u"backend"].toString(), u"service"_qs);
        QCOMPARE(status()[u"apiKeyStored"].toBool(), true);
    }

    void widgetAtTheTopCentreNarratesTheSelection()
    {
        const QByteArray widget =
            runProgram(QStringLiteral("xdotool"),
                       {"search", "--sync", "--onlyvisible", "--name", "^Quillvox$"}, 20000)
                .split('\n')
                .value(0);
        QVERIFY2(!widget.isEmpty(), "no widget window");
        const QList<QByteArray> screen =
            runProgram(QStringLiteral("xdotool"), {"getdisplaygeometry"}).trimmed().split(' ');
        QCOMPARE(screen.size(), 2);
        const QByteArray geometry = runProgram(QStringLiteral("xdotool"),
                                               {"getwindowgeometry", "--shell", QString::fromLatin1(widget)});
        const QByteArray left = "X=" + QByteArray::number((screen[0].toInt() - kWidgetWidth) / 2) + '\n';
        const QByteArray top = "Y=" + QByteArray::number(kWidgetTop) + '\n';
        QVERIFY2(geometry.contains(left) && geometry.contains(top), geometry.constData());

        const QString file = m_profile.filePath(QStringLiteral("note.txt"));
        QFile note(file);
        QVERIFY(note.open(QIODevice::WriteOnly));
        note.write(kLine.toUtf8());
        note.close();
        QVERIFY(!openInMousepad(m_editor, file).isEmpty());
        xdotool({"key", "ctrl+a"});
        xdotool({"key", "ctrl+alt+s"});
        QTRY_VERIFY_WITH_TIMEOUT(status()[u"isPlaying"].toBool(), 15000);
        // Logged once its stream has ended.
        QTRY_COMPARE_WITH_TIMEOUT(narratedTexts().value(1), kLine, 15000);
    }
};

QTEST_GUILESS_MAIN(TestDemo)
#include "tst_demo.moc"
