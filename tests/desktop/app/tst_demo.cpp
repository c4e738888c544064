// SPDX-License-Identifier: GPL-3.0-or-later
// README's first command as a newcomer runs it: scripts/run-demo.sh (on the tests' build rather than
// building again) signs in to its dev server, narrates the welcome and starts Quillvox; the widget then
// shows, and text selected in mousepad is narrated with Ctrl+Alt+S.
#include "AppUnderTest.h"

#include <csignal>
#include <unistd.h>

const QString kLine = QStringLiteral("The demo reads this line through its own dev server account.");

class TestDemo : public QObject
{
    Q_OBJECT

    QTemporaryDir m_profile{QDir::tempPath() + QStringLiteral("/qv-demo-XXXXXX")};
    QProcess m_demo;
    ChildProcess m_editor;
    QStringList m_printed;

    // The commands' Quillvox: the profile's variables, as the demo prints them for another terminal.
    AppUnderTest m_quillvox{AppUnderTest::Accessibility::Off};

    // The texts the demo's dev server was asked to speak through the service.
    QStringList narratedTexts() const
    {
        return DevServer::narratedTexts(DevServer::requests(m_profile.filePath("devserver.log")),
                                        u"/api/tts/stream");
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (const QString lack = desktopLacks({"mousepad", "xdotool", "curl", "secret-tool"});
            !lack.isEmpty())
            QSKIP(qPrintable(lack));
        QVERIFY(m_profile.isValid());
        for (const char *folder : {"config", "data", "cache"})
            m_quillvox.env.insert(QStringLiteral("XDG_%1_HOME").arg(QString::fromLatin1(folder).toUpper()),
                                  m_profile.filePath(QString::fromLatin1(folder)));
        m_quillvox.env.insert("QUILLVOX_KEYCHAIN_SERVICE", "com.vantor.quillvox.demo");
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("BUILD_DIR", QFileInfo(QUILLVOX_EXECUTABLE).absoluteDir().absoluteFilePath(".."));
        env.insert("QUILLVOX_DEMO_PREBUILT", "1");
        env.insert("DEMO_PROFILE", m_profile.path());
        m_demo.setProcessEnvironment(env);
        m_demo.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        // A group of its own, so that the test's Ctrl+C reaches the demo and the Quillvox it runs.
        m_demo.setChildProcessModifier([] { ::setpgid(0, 0); });
        m_demo.start(QStringLiteral(QUILLVOX_SOURCE_DIR "/scripts/run-demo.sh"), QStringList());
        QVERIFY(m_demo.waitForStarted());
        // The welcome is heard before Quillvox starts.
        QVERIFY(QTest::qWaitFor(
            [this] {
                while (m_demo.canReadLine())
                    m_printed.append(QString::fromUtf8(m_demo.readLine()).trimmed());
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
        QTRY_COMPARE_WITH_TIMEOUT(m_quillvox.status()[u"auth"][u"state"].toString(), u"signedIn"_qs, 15000);
        QCOMPARE(m_quillvox.status()[u"backend"].toString(), u"service"_qs);
        QCOMPARE(m_quillvox.status()[u"apiKeyStored"].toBool(), true);
    }

    void widgetShowsAndNarratesTheSelection()
    {
        QVERIFY2(!visibleWindows(QStringLiteral("Quillvox"), 20000).isEmpty(), "no widget window");
        QVERIFY(!openInMousepad(m_editor, m_profile.filePath("note.txt"), kLine.toUtf8()).isEmpty());
        xdotool({"key", "ctrl+a"});
        xdotool({"key", "ctrl+alt+s"});
        QTRY_VERIFY_WITH_TIMEOUT(m_quillvox.status()[u"isPlaying"].toBool(), 15000);
        // Logged once its stream has ended.
        QTRY_COMPARE_WITH_TIMEOUT(narratedTexts().value(1), kLine, 15000);
    }
};

QTEST_GUILESS_MAIN(TestDemo)
#include "tst_demo.moc"
