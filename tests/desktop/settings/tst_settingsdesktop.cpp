// SPDX-License-Identifier: GPL-3.0-or-later
// The settings window as a user meets it: opened from the widget (shown for the user's own key), every
// section reached by its name, the key and the speech server chosen and tested against dev servers and
// followed when the command line changes it, Escape and Tab, a shortcut re-bound and used in mousepad,
// the history replayed, paused, resumed, exported and cleared, the account signed in through the browser
// and out, the way from a missing permission.
#include "AppUnderTest.h"
#include "StatusNotifierWatcher.h"
#include "TestBrowser.h"
#include "TrayItemReader.h"

#include "account/KeychainHelper.h"
#include "platform/x11/X11Connection.h"
#include "records/HistoryManager.h"
#include "shortcuts/KeyTable.h"

#include <QDirIterator>

#include <xcb/xcb.h>

namespace {

const QString kKey = QStringLiteral("sk-desktop-5678");
// Narrated by the second server, then replayed and exported from the history.
const QString kSpoken = QStringLiteral("The second server reads this sentence aloud for the history.");
const QString kLine = QStringLiteral("Only this line is read, with the new shortcut.");

// Replaces the text of the focused field and confirms it with Enter.
void typeOver(const QString &text)
{
    xdotool({"key", "ctrl+a"});
    xdotool({"type", "--delay", "10", text});
    xdotool({"key", "Return"});
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
    // The tray host, there before the app, shows the narration shortcut in the menu.
    StatusNotifierWatcher m_tray;
    AppUnderTest m_app;
    QString m_browserLog;

private Q_SLOTS:
    void initTestCase()
    {
        if (const QString lack = desktopLacks({"mousepad", "xdotool", "sox"}); !lack.isEmpty())
            QSKIP(qPrintable(lack));
        QVERIFY(m_dir.isValid());
        for (DevServer *server : {&m_server, &m_second})
            QVERIFY2(server->start({"--pace", "0", "--openai-key", kKey, "--auto-consent"}),
                     qPrintable(server->errorString()));
        // Own-key mode, with a key that the test replaces; no account.
        QVERIFY(KeychainHelper::shared().save(QStringLiteral("sk-replaced-0000"), KeychainKey::openAIAPIKey));
        for (const KeychainKey key : {KeychainKey::accessToken, KeychainKey::refreshToken})
            KeychainHelper::shared().remove(key);
        // The profile outlives a run: start from no settings and no history.
        QVERIFY(QDir(HistoryManager::standardHistoryDirectory()).removeRecursively());
        AppUnderTest::setSettings({{"hasCompletedOnboarding", true},
                                   {"showWidgetWithOwnKey", true},
                                   {"openAIServer", m_server.url().toString()}},
                                  true);

        QVERIFY(m_other.isValid());
        constexpr quint64 ctrlAlt = KeyTable::Command | KeyTable::Option;
        xcb_grab_key(m_other.connection(), 0, m_other.root(), quint16(KeyTable::xModifiers(ctrlAlt)),
                     quint8(*KeyTable::xKeyCode(KeyTable::kVK_ANSI_W)), XCB_GRAB_MODE_ASYNC,
                     XCB_GRAB_MODE_ASYNC);
        m_other.sync();

        // The account's parties; the speech server is the settings' choice.
        m_app.useServer(m_server);
        m_app.env.remove(QStringLiteral("QUILLVOX_OPENAI_ORIGIN"));
        m_app.env.insert(QStringLiteral("QUILLVOX_APPCAST_URL"),
                         m_server.url(QStringLiteral("/appcast.xml")).toString());
        QVERIFY2(m_tray.start(), qPrintable(m_tray.errorString()));
        m_browserLog = installTestBrowser(m_app.env);
        QVERIFY(!m_browserLog.isEmpty());
        QVERIFY(m_app.start());
        QVERIFY(m_app.walk({"Open Settings", "=API Keys"}));
    }

    // The sections no later case visits, each row named after its section.
    void eachSectionByName_data()
    {
        QTest::addColumn<QString>("control");
        QTest::newRow("Appearance") << "Crimson";
        QTest::newRow("Usage") << "This Week";
        QTest::newRow("About") << "Website";
    }
    void eachSectionByName()
    {
        QFETCH(QString, control);
        QVERIFY(m_app.walk({QString::fromLatin1(QTest::currentDataTag()), u'=' + control}));
    }

    // The key lands in the keyring and in no file of the profile.
    void keyGoesToTheKeyringOnly()
    {
        QVERIFY(m_app.walk({"API Keys", "OpenAI API key"}));
        typeOver(kKey);
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
        QVERIFY(m_app.click(QStringLiteral("API Keys")));
        QCOMPARE(
            m_app.run({key.isEmpty() ? "--clear-api-key" : "--set-api-key"}, key.toUtf8() + '\n').exitCode,
            0);
        if (key.isEmpty())
            QTRY_VERIFY_WITH_TIMEOUT(m_app.control(QStringLiteral("Remove")).isEmpty(), 2000);
        else
            QVERIFY(!m_app.waitForControl(u"Saved key sk-…" + key.right(4), 0, 2000).isEmpty());
    }

    // Escape in the key field takes back what was typed, not the window, and nothing typed is saved
    // when the focus moves on; with nothing typed, Escape closes the window.
    void escapeInTheKeyField()
    {
        QVERIFY(m_app.walk({"API Keys", "OpenAI API key"}));
        xdotool({"type", "--delay", "10", "sk-half"});
        xdotool({"key", "Escape"});
        QVERIFY(m_app.walk({"Shortcuts", "=Narrate Selection shortcut"}));
        QCOMPARE(KeychainHelper::shared().load(KeychainKey::openAIAPIKey), kKey);

        QVERIFY(m_app.walk({"API Keys", "OpenAI API key"}));
        xdotool({"key", "Escape"});
        QTRY_VERIFY(m_app.control(QStringLiteral("API Keys")).isEmpty());
        QVERIFY(m_app.walk({"Open Settings", "=API Keys"}));
    }

    // Tab goes from the section list through the Voice section in reading order.
    void tabWalksTheVoiceSection()
    {
        QVERIFY(m_app.click(QStringLiteral("Voice")));
        QTRY_COMPARE(m_app.focusedName(), QStringLiteral("Voice"));
        QStringList walked;
        for (int i = 0; i < 28; ++i) {
            xdotool({"key", "Tab"});
            QTest::qWait(50);
            walked.append(m_app.focusedName());
        }
        QStringList expected;
        for (const char *voice : {"Marin", "Cedar", "Alloy", "Echo", "Fable", "Nova", "Onyx", "Shimmer"})
            expected << voice << u"Preview " + QLatin1String(voice);
        expected += QStringLiteral("Standard|Calm|Friendly|Professional|Bedtime Story|Dramatic|Cheerful|"
                                   "Speed 0.5×|Speed 1×|Speed 1.25×|Speed 1.5×|Speed 2×")
                        .split(u'|');
        QCOMPARE(walked, expected);
    }

    // "Test" and the next narration both go to the server just entered, which stays chosen for what
    // follows.
    void serverChoice()
    {
        const qsizetype before = m_server.narratedTexts().size();
        QVERIFY(m_app.walk({"API Keys", "Server"}));
        typeOver(m_second.url().toString());
        QVERIFY(m_app.walk({"Test", "=Works"}));
        QTRY_COMPARE(m_second.narratedTexts(), QStringList{QStringLiteral("This is a test.")});

        m_app.run({"--speak", kSpoken});
        QTRY_COMPARE_WITH_TIMEOUT(m_second.narratedTexts(),
                                  (QStringList{QStringLiteral("This is a test."), kSpoken}), 10000);
        QCOMPARE(m_server.narratedTexts().size(), before);
    }

    // A combination another client holds is named as such, not left silently dead.
    void contestedCombination() { QVERIFY(m_app.walk({"Shortcuts", "=Used by another application"})); }

    // A combination recorded in the window narrates the selection in mousepad straight away.
    void reboundNarrationWorksAtOnce()
    {
        QVERIFY(m_app.walk({"Shortcuts", "Narrate Selection shortcut"}));
        QTest::qWait(200); // the recorder takes the focus a turn later
        QTRY_COMPARE(m_tray.items().size(), 1);
        const TrayItemReader tray(m_tray.items().first());
        // The server test's word may still play, which hides the entry.
        QTRY_VERIFY_WITH_TIMEOUT(!m_app.status()[u"isPlaying"].toBool(), 15000);
        QCOMPARE(tray.shownMenu().value(0), QStringLiteral("Narrate Selection\tControl+Alt+S"));
        xdotool({"key", "ctrl+alt+n"});
        QTRY_COMPARE(m_app.status()[u"shortcuts"][0][u"label"].toString(), QStringLiteral("Ctrl+Alt+N"));
        QVERIFY(m_app.status()[u"shortcuts"][0][u"registered"].toBool());
        QCOMPARE(tray.shownMenu().value(0), QStringLiteral("Narrate Selection\tControl+Alt+N"));

        ChildProcess editor;
        QVERIFY(!openInMousepad(editor, m_dir.filePath("text.txt"),
                                "A first line, which is not narrated.\n" + kLine.toUtf8())
                     .isEmpty());
        xdotool({"key", "ctrl+End", "shift+Home"});
        xdotool({"key", "ctrl+alt+n"});
        QTRY_COMPARE_WITH_TIMEOUT(m_second.narratedTexts().last(), kLine, 10000);
    }

    // Replay plays the kept audio without asking the server; the export is a FLAC file that decodes;
    // "Clear All", once confirmed, empties the list and the folder.
    void historyReplayExportAndClear()
    {
        QVERIFY(m_app.click(QStringLiteral("History")));
        QTRY_VERIFY_WITH_TIMEOUT(!m_app.status()[u"isPlaying"].toBool(), 15000);
        const qsizetype asked = m_second.requests().size();
        QVERIFY(m_app.walk({u"Play " + kSpoken, u"=Pause " + kSpoken}));
        QCOMPARE(m_second.requests().size(), asked);
        // Paused, the same button resumes where it stopped.
        QTRY_VERIFY(m_app.status()[u"currentTime"].toDouble() > 0.5);
        QVERIFY(m_app.click(u"Pause " + kSpoken));
        QTRY_VERIFY(!m_app.status()[u"isPlaying"].toBool());
        const double pausedAt = m_app.status()[u"currentTime"].toDouble();
        QVERIFY(m_app.click(u"Play " + kSpoken));
        QTRY_VERIFY(m_app.status()[u"isPlaying"].toBool());
        QVERIFY2(m_app.status()[u"currentTime"].toDouble() >= pausedAt,
                 qPrintable(QString::number(pausedAt)));

        const QString path = m_dir.filePath(QStringLiteral("narration.flac"));
        QVERIFY(m_app.click(u"Export " + kSpoken));
        const QByteArray dialog = visibleWindows(QStringLiteral("Export Narration"), 15000).value(0);
        QVERIFY2(!dialog.isEmpty(), "no file dialog");
        xdotool({"windowactivate", "--sync", dialog});
        QTest::qWait(300);
        typeOver(path);
        QVERIFY(m_app.shows(QStringLiteral("Exported to narration.flac")));
        QCOMPARE(runProgram(QStringLiteral("soxi"), {"-t", path}).trimmed(), "flac");
        // Decoded whole: more than a second of 8-bit samples at 8 kHz.
        const QByteArray decoded =
            runProgram(QStringLiteral("sox"), {path, "-r", "8000", "-c", "1", "-t", "s8", "-"});
        QVERIFY2(decoded.size() > 8000, qPrintable(QString::number(decoded.size())));

        QVERIFY(!QDir(HistoryManager::standardHistoryDirectory()).isEmpty(QDir::Files));
        QVERIFY(m_app.walk({"Clear All", "Delete All", "=No narrations yet"}));
        QVERIFY(QDir(HistoryManager::standardHistoryDirectory()).isEmpty(QDir::Files));
    }

    // Sign-in continues in the browser, whose callback reaches the running app; the section then shows
    // the account, and "Sign Out" takes it away again.
    void accountSignsInAndOut()
    {
        QVERIFY(m_app.walk({"Account", "Continue with Google", "=reader@example.com"}));
        QFile opened(m_browserLog);
        QVERIFY(opened.open(QIODevice::ReadOnly));
        QVERIFY(opened.readAll().startsWith(
            m_server.url(QStringLiteral("/auth/v1/authorize?provider=google")).toString().toUtf8()));
        QVERIFY(KeychainHelper::shared().load(KeychainKey::accessToken));
        QCOMPARE(m_app.status()[u"backend"].toString(), QStringLiteral("service"));

        QVERIFY(m_app.walk({"Sign Out", "=Continue with Google"}));
        QVERIFY(!KeychainHelper::shared().load(KeychainKey::accessToken));
        QCOMPARE(m_app.status()[u"backend"].toString(), QStringLiteral("ownKey"));
    }

    // Where selection capture cannot work, the widget's "Open Settings" leads to the Shortcuts section,
    // which says why, also when the session has no global shortcuts at all.
    void missingPermissionOpensShortcuts()
    {
        QVERIFY(m_app.stop());
        // A Wayland session as the app tells one; it still draws on the rig's X server.
        m_app.env.insert(QStringLiteral("XDG_SESSION_TYPE"), QStringLiteral("wayland"));
        QVERIFY(m_app.start());

        // What the desktop's own binding runs there.
        m_app.run({"--narrate-selection"});
        QTRY_COMPARE(m_app.status()[u"currentError"][u"id"].toString(),
                     QStringLiteral("accessibilityPermissionMissing"));
        // The header's settings button comes first, the error's own second.
        QVERIFY(m_app.click(QStringLiteral("Open Settings"), 1));
        QVERIFY(m_app.shows(
            QStringLiteral("Quillvox copies the selected text with X11 keyboard events, which a Wayland "
                           "session does not pass on to other applications. Log in to an X11 (Xorg) "
                           "session to narrate text selected in other applications.")));
    }
};

QTEST_GUILESS_MAIN(TestSettingsDesktop)
#include "tst_settingsdesktop.moc"
