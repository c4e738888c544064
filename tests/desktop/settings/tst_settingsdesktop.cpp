// SPDX-License-Identifier: GPL-3.0-or-later
// The settings window as a user meets it: opened from the widget (shown for the user's own key), every
// section reached by its name, the key and the speech server chosen and tested against dev servers and
// followed when the command line changes it, Escape and Tab, a shortcut re-bound and used in mousepad,
// the history replayed, paused, resumed, exported and cleared, the account signed in through the browser
// and out, the way from a missing permission.
#include "DevServer.h"
#include "StatusNotifierWatcher.h"
#include "TestBrowser.h"
#include "TrayItemReader.h"
#include "X11Desktop.h"

#include "account/KeychainHelper.h"
#include "core/UserDefaults.h"
#include "platform/x11/X11Connection.h"
#include "records/HistoryManager.h"
#include "shortcuts/KeyTable.h"

#include <QDirIterator>
#include <QJsonDocument>
#include <QRect>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <xcb/xcb.h>

namespace {

const QString kKey = QStringLiteral("sk-desktop-5678");
// Narrated by the second server, then replayed and exported from the history.
const QString kSpoken = QStringLiteral("The second server reads this sentence aloud for the history.");
const QString kLine = QStringLiteral("Only this line is read, with the new shortcut.");

// Replaces the text of the field called `name` and confirms it with Enter.
bool enter(const QString &name, const QString &text)
{
    if (!clickAccessibleControl(name))
        return false;
    xdotool({"key", "ctrl+a"});
    xdotool({"type", "--delay", "10", text});
    xdotool({"key", "Return"});
    return true;
}

QString errorShown()
{
    return appStatus()[u"currentError"][u"description"].toString();
}

} // namespace

class TestSettingsDesktop : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir{QDir::tempPath() + QStringLiteral("/qv-settings-XXXXXX")};
    DevServer m_server;
    DevServer m_second;
    // Another client's hold on Ctrl+Alt+W (skip back), taken before the app starts.
    X11Connection m_other;
    ChildProcess m_accessibility;
    // The tray host, there before the app, shows the narration shortcut in the menu.
    StatusNotifierWatcher m_tray;
    ChildProcess m_app;
    QString m_browserLog;

private Q_SLOTS:
    void initTestCase()
    {
        if (const QString lack = desktopLacks({"mousepad", "xdotool", "sox"}); !lack.isEmpty())
            QSKIP(qPrintable(lack));
        QVERIFY(m_dir.isValid());
        QVERIFY(startAccessibilityBus(m_accessibility));
        for (DevServer *server : {&m_server, &m_second})
            QVERIFY2(server->start({"--pace", "0", "--openai-key", kKey, "--auto-consent"}),
                     qPrintable(server->errorString()));
        // Own-key mode, with a key that the test replaces; no account.
        QVERIFY(KeychainHelper::shared().save(QStringLiteral("sk-replaced-0000"), KeychainKey::openAIAPIKey));
        for (const KeychainKey key : {KeychainKey::accessToken, KeychainKey::refreshToken})
            KeychainHelper::shared().remove(key);
        // The profile outlives a run: start from no settings and no history.
        QFile::remove(UserDefaults::standardFilePath());
        QVERIFY(QDir(HistoryManager::standardHistoryDirectory()).removeRecursively());
        {
            UserDefaults settings(UserDefaults::standardFilePath());
            settings.setBoolean(QStringLiteral("hasCompletedOnboarding"), true);
            settings.setBoolean(QStringLiteral("showWidgetWithOwnKey"), true);
            settings.setString(QStringLiteral("openAIServer"), m_server.url().toString());
            settings.sync();
        }

        QVERIFY(m_other.isValid());
        constexpr quint64 ctrlAlt = KeyTable::Command | KeyTable::Option;
        xcb_grab_key(m_other.connection(), 0, m_other.root(), quint16(KeyTable::xModifiers(ctrlAlt)),
                     quint8(*KeyTable::xKeyCode(KeyTable::kVK_ANSI_W)), XCB_GRAB_MODE_ASYNC,
                     XCB_GRAB_MODE_ASYNC);
        m_other.sync();

        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("QUILLVOX_AUDIO_OUTPUT"), QStringLiteral("null"));
        env.insert(QStringLiteral("QT_LINUX_ACCESSIBILITY_ALWAYS_ON"), QStringLiteral("1"));
        // The account's parties; the speech server is the settings' choice.
        for (const char *origin : {"QUILLVOX_SERVICE_ORIGIN", "QUILLVOX_AUTH_ORIGIN"})
            env.insert(QString::fromLatin1(origin), m_server.url().toString());
        env.insert(QStringLiteral("QUILLVOX_APPCAST_URL"),
                   m_server.url(QStringLiteral("/appcast.xml")).toString());
        env.insert(QStringLiteral("QUILLVOX_AUTH_ANON_KEY"), QStringLiteral("quillvox-dev-anon-key"));
        QVERIFY2(m_tray.start(), qPrintable(m_tray.errorString()));
        m_browserLog = installTestBrowser(env);
        QVERIFY(!m_browserLog.isEmpty());
        m_app.process.setProcessEnvironment(env);
        m_app.process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_app.process.start(QStringLiteral(QUILLVOX_EXECUTABLE), QStringList());
        QVERIFY(m_app.process.waitForStarted());
        QVERIFY(clickAccessibleControl(QStringLiteral("Open Settings")));
        QVERIFY(showsAccessibleControl(QStringLiteral("API Keys")));
    }

    void eachSectionByName_data()
    {
        QTest::addColumn<QString>("section");
        QTest::addColumn<QString>("control");
        QTest::newRow("Voice") << "Voice"
                               << "Cedar";
        QTest::newRow("Appearance") << "Appearance"
                                    << "Crimson";
        QTest::newRow("Shortcuts") << "Shortcuts"
                                   << "Narrate Selection shortcut";
        QTest::newRow("API Keys") << "API Keys"
                                  << "OpenAI API key";
        QTest::newRow("History") << "History"
                                 << "Clear All";
        QTest::newRow("Usage") << "Usage"
                               << "This Week";
        QTest::newRow("About") << "About"
                               << "Website";
        QTest::newRow("Account") << "Account"
                                 << "Continue with Google";
    }
    void eachSectionByName()
    {
        QFETCH(QString, section);
        QFETCH(QString, control);
        QVERIFY(clickAccessibleControl(section));
        QVERIFY2(showsAccessibleControl(control), qPrintable(control));
    }

    // The key lands in the keyring and in no file of the profile.
    void keyGoesToTheKeyringOnly()
    {
        QVERIFY(clickAccessibleControl(QStringLiteral("API Keys")));
        QVERIFY(clickAccessibleControl(QStringLiteral("OpenAI API key")));
        xdotool({"type", "--delay", "20", kKey});
        xdotool({"key", "Return"});
        QTRY_COMPARE_WITH_TIMEOUT(KeychainHelper::shared().load(KeychainKey::openAIAPIKey), kKey, 10000);
        for (const auto location :
             {QStandardPaths::GenericConfigLocation, QStandardPaths::GenericDataLocation}) {
            QDirIterator files(QStandardPaths::writableLocation(location), QDir::Files,
                               QDirIterator::Subdirectories);
            while (files.hasNext()) {
                QFile file(files.next());
                QVERIFY2(!file.open(QIODevice::ReadOnly) || !file.readAll().contains(kKey.toUtf8()),
                         qPrintable(file.fileName()));
            }
        }
    }

    // Another program changing the key (here the command line) shows in the open section.
    void keyFollowsTheKeyring_data()
    {
        QTest::addColumn<QString>("key"); // empty: cleared
        QTest::newRow("set") << "sk-command-line-9999";
        QTest::newRow("cleared") << "";
        QTest::newRow("set back") << kKey;
    }
    void keyFollowsTheKeyring()
    {
        QFETCH(QString, key);
        QVERIFY(clickAccessibleControl(QStringLiteral("API Keys")));
        QProcess cli;
        cli.start(QStringLiteral(QUILLVOX_EXECUTABLE),
                  {key.isEmpty() ? QStringLiteral("--clear-api-key") : QStringLiteral("--set-api-key")});
        cli.write(key.toUtf8() + '\n');
        cli.closeWriteChannel();
        QVERIFY(cli.waitForFinished(10000));
        QCOMPARE(cli.exitCode(), 0);
        if (key.isEmpty())
            QTRY_VERIFY_WITH_TIMEOUT(findAccessibleControl(QStringLiteral("Remove")).isEmpty(), 2000);
        else
            QVERIFY(!waitForAccessibleControl(u"Saved key sk-…" + key.right(4), 0, 2000).isEmpty());
    }

    // Escape in the key field takes back what was typed, not the window, and nothing typed is saved
    // when the focus moves on; with nothing typed, Escape closes the window.
    void escapeInTheKeyField()
    {
        QVERIFY(clickAccessibleControl(QStringLiteral("API Keys")));
        QVERIFY(clickAccessibleControl(QStringLiteral("OpenAI API key")));
        xdotool({"type", "--delay", "10", "sk-half"});
        xdotool({"key", "Escape"});
        QVERIFY(clickAccessibleControl(QStringLiteral("Shortcuts")));
        QVERIFY(showsAccessibleControl(QStringLiteral("Narrate Selection shortcut")));
        QCOMPARE(KeychainHelper::shared().load(KeychainKey::openAIAPIKey), kKey);

        QVERIFY(clickAccessibleControl(QStringLiteral("API Keys")));
        QVERIFY(clickAccessibleControl(QStringLiteral("OpenAI API key")));
        xdotool({"key", "Escape"});
        QTRY_VERIFY(findAccessibleControl(QStringLiteral("API Keys")).isEmpty());
        QVERIFY(clickAccessibleControl(QStringLiteral("Open Settings")));
        QVERIFY(showsAccessibleControl(QStringLiteral("API Keys")));
    }

    // Tab goes from the section list through the Voice section in reading order.
    void tabWalksTheVoiceSection()
    {
        QVERIFY(clickAccessibleControl(QStringLiteral("Voice")));
        QTRY_COMPARE(focusedAccessibleName(), QStringLiteral("Voice"));
        QStringList walked;
        for (int i = 0; i < 28; ++i) {
            xdotool({"key", "Tab"});
            QTest::qWait(50);
            walked.append(focusedAccessibleName());
        }
        const QStringList voices{"Marin", "Cedar", "Alloy", "Echo", "Fable", "Nova", "Onyx", "Shimmer"};
        QStringList expected;
        for (const QString &voice : voices)
            expected << voice << u"Preview " + voice;
        expected << "Standard"
                 << "Calm"
                 << "Friendly"
                 << "Professional"
                 << "Bedtime Story"
                 << "Dramatic"
                 << "Cheerful"
                 << "Speed 0.5×"
                 << "Speed 1×"
                 << "Speed 1.25×"
                 << "Speed 1.5×"
                 << "Speed 2×";
        QCOMPARE(walked, expected);
    }

    // "Test" and the next narration both go to the server just entered, and a refusal reads the same
    // in both. The second server stays chosen for what follows.
    void serverChoice_data()
    {
        QTest::addColumn<bool>("refusing");
        QTest::addColumn<QString>("spoken");
        QTest::addColumn<QString>("result");
        // A chosen server's own words, in the test as in the narration.
        QTest::newRow("refusing with 401")
            << true << "Refused, this one."
            << "API error (401): Failure injected by quillvox-devserver --fail-status 401.";
        QTest::newRow("second server") << false << kSpoken << "Works";
    }
    void serverChoice()
    {
        QFETCH(bool, refusing);
        QFETCH(QString, spoken);
        QFETCH(QString, result);
        DevServer refuser;
        if (refusing)
            QVERIFY2(refuser.start({"--fail-status", "401"}), qPrintable(refuser.errorString()));
        const DevServer &server = refusing ? refuser : m_second;
        const qsizetype before = m_server.narratedTexts().size();

        QVERIFY(clickAccessibleControl(QStringLiteral("API Keys")));
        QVERIFY(enter(QStringLiteral("Server"), server.url().toString()));
        QVERIFY(clickAccessibleControl(QStringLiteral("Test")));
        QVERIFY2(showsAccessibleControl(result), qPrintable(result));
        QTRY_COMPARE(server.narratedTexts(), QStringList{QStringLiteral("This is a test.")});

        runProgram(QStringLiteral(QUILLVOX_EXECUTABLE), {"--speak", spoken});
        QTRY_COMPARE_WITH_TIMEOUT(server.narratedTexts(),
                                  (QStringList{QStringLiteral("This is a test."), spoken}), 10000);
        QTRY_COMPARE(errorShown(), refusing ? result : QString());
        QCOMPARE(m_server.narratedTexts().size(), before);
    }

    // A combination another client holds is named as such, not left silently dead.
    void contestedCombination()
    {
        QVERIFY(clickAccessibleControl(QStringLiteral("Shortcuts")));
        QVERIFY(showsAccessibleControl(QStringLiteral("Used by another application")));
    }

    // A recorder left for another section stops recording: coming back, a combination typed is not
    // taken, until the row is asked to record again.
    void sectionChangeEndsRecording()
    {
        QVERIFY(clickAccessibleControl(QStringLiteral("Shortcuts")));
        QVERIFY(clickAccessibleControl(QStringLiteral("Play/Pause shortcut")));
        QTest::qWait(200);
        QVERIFY(clickAccessibleControl(QStringLiteral("Voice")));
        QVERIFY(clickAccessibleControl(QStringLiteral("Shortcuts")));
        QVERIFY(showsAccessibleControl(QStringLiteral("Play/Pause shortcut")));
        xdotool({"key", "ctrl+alt+p"});
        QTest::qWait(500);
        QCOMPARE(appStatus()[u"shortcuts"][1][u"label"].toString(), QStringLiteral("Ctrl+Alt+E"));
    }

    // A combination recorded in the window narrates the selection in mousepad straight away.
    void reboundNarrationWorksAtOnce()
    {
        QVERIFY(clickAccessibleControl(QStringLiteral("Shortcuts")));
        QVERIFY(clickAccessibleControl(QStringLiteral("Narrate Selection shortcut")));
        QTest::qWait(200); // the recorder takes the focus a turn later
        QTRY_COMPARE(m_tray.items().size(), 1);
        const TrayItemReader tray(m_tray.items().first());
        // The server test's word may still play, which hides the entry.
        QTRY_VERIFY_WITH_TIMEOUT(!appStatus()[u"isPlaying"].toBool(), 15000);
        QCOMPARE(tray.entryText(QStringLiteral("Narrate Selection")),
                 QStringLiteral("Narrate Selection\tControl+Alt+S"));
        xdotool({"key", "ctrl+alt+n"});
        QTRY_COMPARE(appStatus()[u"shortcuts"][0][u"label"].toString(), QStringLiteral("Ctrl+Alt+N"));
        QVERIFY(appStatus()[u"shortcuts"][0][u"registered"].toBool());
        QCOMPARE(tray.entryText(QStringLiteral("Narrate Selection")),
                 QStringLiteral("Narrate Selection\tControl+Alt+N"));

        const QString file = m_dir.filePath(QStringLiteral("text.txt"));
        QFile f(file);
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.write("A first line, which is not narrated.\n" + kLine.toUtf8());
        f.close();
        ChildProcess editor;
        QVERIFY2(!openInMousepad(editor, file).isEmpty(), "mousepad did not show a window");
        xdotool({"key", "ctrl+End", "shift+Home"});
        xdotool({"key", "ctrl+alt+n"});
        QTRY_COMPARE_WITH_TIMEOUT(m_second.narratedTexts().last(), kLine, 10000);
    }

    // Replay plays the kept audio without asking the server; the export is a FLAC file that decodes;
    // "Clear All", once confirmed, empties the list and the folder.
    void historyReplayExportAndClear()
    {
        QVERIFY(clickAccessibleControl(QStringLiteral("History")));
        QTRY_VERIFY_WITH_TIMEOUT(!appStatus()[u"isPlaying"].toBool(), 15000);
        const qsizetype asked = m_second.requests().size();
        QVERIFY(clickAccessibleControl(u"Play " + kSpoken));
        QVERIFY(showsAccessibleControl(u"Pause " + kSpoken));
        QCOMPARE(m_second.requests().size(), asked);
        // Paused, the same button resumes where it stopped.
        QTRY_VERIFY(appStatus()[u"currentTime"].toDouble() > 0.5);
        QVERIFY(clickAccessibleControl(u"Pause " + kSpoken));
        QTRY_VERIFY(!appStatus()[u"isPlaying"].toBool());
        const double pausedAt = appStatus()[u"currentTime"].toDouble();
        QVERIFY(clickAccessibleControl(u"Play " + kSpoken));
        QTRY_VERIFY(appStatus()[u"isPlaying"].toBool());
        QVERIFY2(appStatus()[u"currentTime"].toDouble() >= pausedAt, qPrintable(QString::number(pausedAt)));

        const QString path = m_dir.filePath(QStringLiteral("narration.flac"));
        QVERIFY(clickAccessibleControl(u"Export " + kSpoken));
        const QByteArray dialog = runProgram(QStringLiteral("xdotool"), {"search", "--sync", "--onlyvisible",
                                                                         "--name", "Export Narration"})
                                      .split('\n')
                                      .value(0);
        QVERIFY2(!dialog.isEmpty(), "no file dialog");
        xdotool({"windowactivate", "--sync", QString::fromLatin1(dialog)});
        QTest::qWait(300);
        xdotool({"key", "ctrl+a"});
        xdotool({"type", "--delay", "10", path});
        xdotool({"key", "Return"});
        QVERIFY(showsAccessibleControl(QStringLiteral("Exported to narration.flac")));
        QCOMPARE(runProgram(QStringLiteral("soxi"), {"-t", path}).trimmed(), "flac");
        QProcess decode;
        decode.start(QStringLiteral("sox"), {path, "-n", "stat"});
        QVERIFY(decode.waitForFinished(15000));
        QCOMPARE(decode.exitCode(), 0);
        const QRegularExpressionMatch length =
            QRegularExpression(QStringLiteral("Length \\(seconds\\):\\s*([0-9.]+)"))
                .match(QString::fromUtf8(decode.readAllStandardError()));
        QVERIFY2(length.hasMatch() && length.captured(1).toDouble() > 1.0, qPrintable(length.captured(0)));

        QVERIFY(!QDir(HistoryManager::standardHistoryDirectory()).isEmpty(QDir::Files));
        QVERIFY(clickAccessibleControl(QStringLiteral("Clear All")));
        QVERIFY(clickAccessibleControl(QStringLiteral("Delete All")));
        QVERIFY(showsAccessibleControl(QStringLiteral("No narrations yet")));
        QVERIFY(QDir(HistoryManager::standardHistoryDirectory()).isEmpty(QDir::Files));
    }

    // Sign-in continues in the browser, whose callback reaches the running app; the section then shows
    // the account, and "Sign Out" takes it away again.
    void accountSignsInAndOut()
    {
        QVERIFY(clickAccessibleControl(QStringLiteral("Account")));
        QVERIFY(clickAccessibleControl(QStringLiteral("Continue with Google")));
        QVERIFY(showsAccessibleControl(QStringLiteral("reader@example.com")));
        QFile opened(m_browserLog);
        QVERIFY(opened.open(QIODevice::ReadOnly));
        QVERIFY(opened.readAll().startsWith(
            m_server.url(QStringLiteral("/auth/v1/authorize?provider=google")).toString().toUtf8()));
        QVERIFY(KeychainHelper::shared().load(KeychainKey::accessToken));
        QCOMPARE(appStatus()[u"backend"].toString(), QStringLiteral("service"));

        QVERIFY(clickAccessibleControl(QStringLiteral("Sign Out")));
        QVERIFY(showsAccessibleControl(QStringLiteral("Continue with Google")));
        QVERIFY(!KeychainHelper::shared().load(KeychainKey::accessToken));
        QCOMPARE(appStatus()[u"backend"].toString(), QStringLiteral("ownKey"));
    }

    // Where selection capture cannot work, the widget's "Open Settings" leads to the Shortcuts section,
    // which says why, also when the session has no global shortcuts at all.
    void missingPermissionOpensShortcuts()
    {
        m_app.process.terminate();
        QVERIFY(m_app.process.waitForFinished(10000));
        // A Wayland session as the app tells one; it still draws on the rig's X server.
        QProcessEnvironment env = m_app.process.processEnvironment();
        env.insert(QStringLiteral("XDG_SESSION_TYPE"), QStringLiteral("wayland"));
        m_app.process.setProcessEnvironment(env);
        m_app.process.start(QStringLiteral(QUILLVOX_EXECUTABLE), QStringList());
        QVERIFY(QTest::qWaitFor([] { return !appStatus().isEmpty(); }, 10000));

        // What the desktop's own binding runs there.
        runProgram(QStringLiteral(QUILLVOX_EXECUTABLE), {"--narrate-selection"});
        QTRY_COMPARE(appStatus()[u"currentError"][u"id"].toString(),
                     QStringLiteral("accessibilityPermissionMissing"));
        // The header's settings button comes first, the error's own second.
        QVERIFY(clickAccessibleControl(QStringLiteral("Open Settings"), 1));
        QVERIFY(showsAccessibleControl(
            QStringLiteral("Quillvox copies the selected text with X11 keyboard events, which a Wayland "
                           "session does not pass on to other applications. Log in to an X11 (Xorg) "
                           "session to narrate text selected in other applications.")));
    }
};

QTEST_GUILESS_MAIN(TestSettingsDesktop)
#include "tst_settingsdesktop.moc"
