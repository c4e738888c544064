// SPDX-License-Identifier: GPL-3.0-or-later
// The first run as a user meets it: a fresh profile, the onboarding window driven through the
// accessibility bus, sign-in through the desktop's browser against the dev server, the try-it narration
// with the real shortcut, and normal operation afterwards without a restart, with the settings window
// opened during onboarding.
#include "DevServer.h"
#include "TestBrowser.h"
#include "X11Desktop.h"

#include "account/KeychainHelper.h"
#include "core/UserDefaults.h"

#include <QDir>
#include <QFile>
#include <QRect>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

namespace {

const QString kSample = QStringLiteral("Welcome to Quillvox. You just made this text talk.");
const QString kEditorLine = QStringLiteral("Read this line from the editor after setup.");

void moveTo(QPoint point)
{
    xdotool({"mousemove", QString::number(point.x()), QString::number(point.y())});
    QTest::qWait(150); // the hover reaches the control before the press
}

QStringList visibleWindows(const QString &title)
{
    const QByteArray found =
        runProgram(QStringLiteral("xdotool"), {"search", "--onlyvisible", "--name", "^" + title + "$"});
    return QString::fromLatin1(found).split(u'\n', Qt::SkipEmptyParts);
}

QSize windowSize(const QString &window)
{
    QSize size;
    for (const QByteArray &line :
         runProgram(QStringLiteral("xdotool"), {"getwindowgeometry", "--shell", window}).split('\n')) {
        if (line.startsWith("WIDTH="))
            size.setWidth(line.mid(6).toInt());
        else if (line.startsWith("HEIGHT="))
            size.setHeight(line.mid(7).toInt());
    }
    return size;
}

} // namespace

class TestOnboardingDesktop : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    DevServer m_server;
    ChildProcess m_accessibility;
    ChildProcess m_editor;
    ChildProcess m_app;
    QProcessEnvironment m_env;
    QString m_browserLog;

    void startApp()
    {
        m_app.process.setProcessEnvironment(m_env);
        m_app.process.setStandardOutputFile(m_dir.filePath(QStringLiteral("app.log")), QIODevice::Append);
        m_app.process.setStandardErrorFile(m_dir.filePath(QStringLiteral("app.log")), QIODevice::Append);
        m_app.process.start(QStringLiteral(QUILLVOX_EXECUTABLE), QStringList());
    }

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
        QVERIFY(startAccessibilityBus(m_accessibility));

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
        m_env = QProcessEnvironment::systemEnvironment();
        m_browserLog = installTestBrowser(m_env);
        QVERIFY(!m_browserLog.isEmpty());
        m_env = m_server.appEnvironment(m_env);
        m_env.insert(QStringLiteral("QUILLVOX_AUDIO_OUTPUT"), QStringLiteral("null"));
        m_env.insert(QStringLiteral("QT_LINUX_ACCESSIBILITY_ALWAYS_ON"), QStringLiteral("1"));
    }

    void cleanup()
    {
        if (!QTest::currentTestFailed())
            return;
        const QString cache = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation);
        QDir().mkpath(cache);
        runProgram(QStringLiteral("import"), {"-window", "root", cache + u"/failure.png"});
        QFile log(m_dir.filePath(QStringLiteral("app.log")));
        if (log.open(QIODevice::ReadOnly))
            qInfo().noquote() << "the screen:" << cache + u"/failure.png"
                              << "\nstatus:" << QJsonDocument(appStatus()).toJson() << "\napp output:\n"
                              << log.readAll() << "\nbrowser opened:\n"
                              << browserLog();
    }

    void firstRunThroughToNormalOperation()
    {
        startApp();
        QVERIFY(showsAccessibleControl(QStringLiteral("Welcome to high-quality narration.")));
        const QStringList windows = visibleWindows(QStringLiteral("Quillvox"));
        QCOMPARE(windows.size(), 1);
        const QString onboarding = windows.first();
        QCOMPARE(windowSize(onboarding), QSize(550, 500));

        QVERIFY(clickAccessibleControl(QStringLiteral("Continue")));
        // The settings window opened on the way (and closed with Escape) is the one used later.
        QVERIFY(clickAccessibleControl(QStringLiteral("Use my own API key")));
        QVERIFY(showsAccessibleControl(QStringLiteral("OpenAI API key")));
        QTRY_COMPARE(visibleWindows(QStringLiteral("Settings")).size(), 1);
        xdotool({"key", "Escape"});
        QTRY_VERIFY(visibleWindows(QStringLiteral("Settings")).isEmpty());
        QVERIFY(clickAccessibleControl(QStringLiteral("Continue with Google")));
        QVERIFY(showsAccessibleControl(QStringLiteral("You're all set!")));
        QVERIFY2(browserLog().startsWith(
                     m_server.url(QStringLiteral("/auth/v1/authorize?provider=google")).toString()),
                 qPrintable(browserLog()));

        QVERIFY(clickAccessibleControl(QStringLiteral("Continue")));
        QVERIFY(showsAccessibleControl(QStringLiteral("Permission granted")));
        QVERIFY(clickAccessibleControl(QStringLiteral("Continue")));
        QVERIFY(clickAccessibleControl(QStringLiteral("Let's try it")));

        // Select the sample with the pointer, from before its first character to past its last.
        const QRect sample = waitForAccessibleControl(kSample);
        QVERIFY(!sample.isEmpty());
        moveTo(sample.topLeft() + QPoint(1, 2));
        xdotool({"mousedown", "1"});
        moveTo(sample.bottomRight() - QPoint(1, 2));
        xdotool({"mouseup", "1"});
        xdotool({"key", "ctrl+alt+s"});
        QTRY_COMPARE_WITH_TIMEOUT(m_server.narratedTexts(u"/api/tts/stream"), QStringList{kSample}, 15000);
        QVERIFY(showsAccessibleControl(QStringLiteral("Great! You did it!")));

        QVERIFY(clickAccessibleControl(QStringLiteral("Next")));
        QVERIFY(showsAccessibleControl(QStringLiteral("Choose your voice")));
        QVERIFY(clickAccessibleControl(QStringLiteral("Next")));
        QVERIFY(showsAccessibleControl(QStringLiteral("Skip")));
        QVERIFY(clickAccessibleControl(QStringLiteral("Next")));
        QVERIFY(showsAccessibleControl(QStringLiteral("Your shortcut")));
        QVERIFY(showsAccessibleControl(QStringLiteral("Ctrl+Alt+S")));
        QVERIFY(clickAccessibleControl(QStringLiteral("Finish Setup")));
        QVERIFY(clickAccessibleControl(QStringLiteral("Start with free minutes")));
        QVERIFY(clickAccessibleControl(QStringLiteral("Get Started")));
        QTRY_VERIFY_WITH_TIMEOUT(!visibleWindows(QStringLiteral("Quillvox")).contains(onboarding), 10000);
        QCOMPARE(UserDefaults(UserDefaults::standardFilePath())
                     .boolean(QStringLiteral("hasCompletedOnboarding"))
                     .value_or(false),
                 true);

        // Normal operation in the same process: the settings window lists every shortcut, and the shortcut
        // narrates what is selected elsewhere.
        QVERIFY(clickAccessibleControl(QStringLiteral("Open Settings")));
        QVERIFY(clickAccessibleControl(QStringLiteral("Shortcuts")));
        for (const char *row : {"Narrate Selection", "Play/Pause", "Stop", "Skip Back 5 Seconds",
                                "Skip Forward 5 Seconds", "Cycle Speed"})
            QVERIFY2(showsAccessibleControl(QLatin1String(row) + u" shortcut"), row);
        xdotool({"key", "Escape"});
        QTRY_VERIFY(visibleWindows(QStringLiteral("Settings")).isEmpty());

        const QString text = m_dir.filePath(QStringLiteral("editor.txt"));
        QFile file(text);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(kEditorLine.toUtf8());
        file.close();
        QVERIFY(!openInMousepad(m_editor, text).isEmpty());
        // Mousepad may show its window before the file is in it: select until the selection holds the line.
        QTRY_VERIFY_WITH_TIMEOUT(
            (xdotool({"key", "ctrl+a"}),
             runProgram(QStringLiteral("xclip"), {"-o", "-selection", "primary"}) == kEditorLine.toUtf8()),
            10000);
        xdotool({"key", "ctrl+alt+s"});
        QTRY_VERIFY2_WITH_TIMEOUT(m_server.narratedTexts(u"/api/tts/stream") ==
                                      (QStringList{kSample, kEditorLine}),
                                  qPrintable(m_server.narratedTexts(u"/api/tts/stream").join(u'|')), 15000);
        m_app.process.terminate();
        QVERIFY(m_app.process.waitForFinished(10000));

        // The second start goes straight to normal operation.
        startApp();
        QVERIFY(showsAccessibleControl(QStringLiteral("Open Settings")));
        QVERIFY(findAccessibleControl(QStringLiteral("Welcome to high-quality narration.")).isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestOnboardingDesktop)
#include "tst_onboardingdesktop.moc"
