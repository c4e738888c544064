// SPDX-License-Identifier: GPL-3.0-or-later
// The first run as a user meets it: a fresh profile, the onboarding window driven through the
// accessibility bus, sign-in through the desktop's browser against the dev server, the try-it narration
// with the real shortcut, and normal operation afterwards without a restart, with the settings window
// opened during onboarding.
#include "AppUnderTest.h"
#include "TestBrowser.h"

#include "account/KeychainHelper.h"
#include "core/UserDefaults.h"

#include <QJsonDocument>

const QString kSample = QStringLiteral("Welcome to Quillvox. You just made this text talk.");
const QString kEditorLine = QStringLiteral("Read this line from the editor after setup.");

class TestOnboardingDesktop : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    DevServer m_server;
    ChildProcess m_editor;
    AppUnderTest m_app;
    QString m_browserLog;

    QString browserLog() const
    {
        QFile log(m_browserLog);
        return log.open(QIODevice::ReadOnly) ? QString::fromUtf8(log.readAll()) : QString();
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (const QString lack = desktopLacks({"mousepad", "xdotool", "xclip", "curl", "xdg-open"});
            !lack.isEmpty())
            QSKIP(qPrintable(lack));
        QVERIFY(m_dir.isValid());

        // A profile that has never run: no settings, no history, nothing in the keyring.
        for (const auto location :
             {QStandardPaths::GenericConfigLocation, QStandardPaths::GenericDataLocation})
            QVERIFY(QDir(QStandardPaths::writableLocation(location) + QStringLiteral("/Quillvox"))
                        .removeRecursively());
        for (const KeychainKey key :
             {KeychainKey::accessToken, KeychainKey::refreshToken, KeychainKey::openAIAPIKey})
            KeychainHelper::shared().remove(key);

        QVERIFY2(m_server.start({"--auto-consent", "--synth", "sine", "--pace", "0"}),
                 qPrintable(m_server.errorString()));
        m_browserLog = installTestBrowser(m_app.env);
        QVERIFY(!m_browserLog.isEmpty());
        m_app.useServer(m_server);
    }

    void cleanup()
    {
        if (!QTest::currentTestFailed())
            return;
        const QString cache = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation);
        QDir().mkpath(cache);
        runProgram(QStringLiteral("import"), {"-window", "root", cache + u"/failure.png"});
        qInfo().noquote() << "the screen:" << cache + u"/failure.png"
                          << "\nstatus:" << QJsonDocument(m_app.status()).toJson() << "\napp output:\n"
                          << m_app.output() << "\nbrowser opened:\n"
                          << browserLog();
    }

    void firstRunThroughToNormalOperation()
    {
        QVERIFY(m_app.start());
        QVERIFY(m_app.shows(QStringLiteral("Welcome to high-quality narration.")));
        const QByteArrayList windows = visibleWindows(QStringLiteral("Quillvox"));
        QCOMPARE(windows.size(), 1);
        const QByteArray onboarding = windows.first();
        QCOMPARE(windowGeometry(onboarding).size(), QSize(550, 500));

        // The settings window opened on the way (and closed with Escape) is the one used later.
        QVERIFY(m_app.walk({"Continue", "Use my own API key", "=OpenAI API key"}));
        QTRY_COMPARE(visibleWindows(QStringLiteral("Settings")).size(), 1);
        xdotool({"key", "Escape"});
        QTRY_VERIFY(visibleWindows(QStringLiteral("Settings")).isEmpty());
        QVERIFY(m_app.walk({"Continue with Google", "=You're all set!"}));
        QVERIFY2(browserLog().startsWith(
                     m_server.url(QStringLiteral("/auth/v1/authorize?provider=google")).toString()),
                 qPrintable(browserLog()));

        QVERIFY(m_app.walk({"Continue", "=Permission granted", "Continue", "Let's try it"}));

        // Select the sample with the pointer, from before its first character to past its last.
        const QRect sample = m_app.waitForControl(kSample);
        QVERIFY(!sample.isEmpty());
        pointAt(sample.topLeft() + QPoint(1, 2));
        xdotool({"mousedown", "1"});
        pointAt(sample.bottomRight() - QPoint(1, 2));
        xdotool({"mouseup", "1"});
        xdotool({"key", "ctrl+alt+s"});
        QTRY_COMPARE_WITH_TIMEOUT(m_server.narratedTexts(u"/api/tts/stream"), QStringList{kSample}, 15000);
        QVERIFY(m_app.shows(QStringLiteral("Great! You did it!")));

        QVERIFY(m_app.walk({"Next", "=Choose your voice", "Next", "=Skip", "Next", "=Your shortcut",
                            "=Ctrl+Alt+S", "Finish Setup", "Start with free minutes", "Get Started"}));
        QTRY_VERIFY_WITH_TIMEOUT(!visibleWindows(QStringLiteral("Quillvox")).contains(onboarding), 10000);
        QCOMPARE(UserDefaults(UserDefaults::standardFilePath())
                     .boolean(QStringLiteral("hasCompletedOnboarding"))
                     .value_or(false),
                 true);

        // Normal operation in the same process: the settings window lists every shortcut, and the shortcut
        // narrates what is selected elsewhere.
        QVERIFY(m_app.walk({"Open Settings", "Shortcuts"}));
        for (const char *row : {"Narrate Selection", "Play/Pause", "Stop", "Skip Back 5 Seconds",
                                "Skip Forward 5 Seconds", "Cycle Speed"})
            QVERIFY2(m_app.shows(QLatin1String(row) + u" shortcut"), row);
        xdotool({"key", "Escape"});
        QTRY_VERIFY(visibleWindows(QStringLiteral("Settings")).isEmpty());

        QVERIFY(!openInMousepad(m_editor, m_dir.filePath("editor.txt"), kEditorLine.toUtf8()).isEmpty());
        // Mousepad may show its window before the file is in it: select until the selection holds the line.
        QTRY_VERIFY_WITH_TIMEOUT(
            (xdotool({"key", "ctrl+a"}),
             runProgram(QStringLiteral("xclip"), {"-o", "-selection", "primary"}) == kEditorLine.toUtf8()),
            10000);
        xdotool({"key", "ctrl+alt+s"});
        QTRY_VERIFY2_WITH_TIMEOUT(m_server.narratedTexts(u"/api/tts/stream") ==
                                      (QStringList{kSample, kEditorLine}),
                                  qPrintable(m_server.narratedTexts(u"/api/tts/stream").join(u'|')), 15000);
        QVERIFY(m_app.stop());

        // The second start goes straight to normal operation.
        QVERIFY(m_app.start());
        QVERIFY(m_app.shows(QStringLiteral("Open Settings")));
        QVERIFY(m_app.control(QStringLiteral("Welcome to high-quality narration.")).isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestOnboardingDesktop)
#include "tst_onboardingdesktop.moc"
