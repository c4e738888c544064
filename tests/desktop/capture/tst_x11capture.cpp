// SPDX-License-Identifier: GPL-3.0-or-later
#include "capture/TextCaptureManager.h"
#include "core/UserDefaults.h"
#include "platform/SystemClipboard.h"
#include "platform/x11/X11GlobalHotKeys.h"
#include "shortcuts/HotkeyManager.h"

#include "ShortcutDoubles.h"
#include "X11Desktop.h"

#include <QGuiApplication>

Q_DECLARE_METATYPE(ClipboardContent)

class TestX11Capture : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    int m_files = 0;

    std::unique_ptr<UserDefaults> freshDefaults()
    {
        return std::make_unique<UserDefaults>(
            m_dir.filePath(QStringLiteral("defaults%1.conf").arg(++m_files)));
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (QGuiApplication::platformName() != u"xcb")
            QSKIP("needs an X11 display: run inside scripts/rig.sh");
        QVERIFY(m_dir.isValid());
    }

    void grabbedCombinationFiresOncePerPress()
    {
        const auto defaults = freshDefaults();
        RecordingControls controls;
        ScriptedSelection selection;
        HotkeyManager manager(*defaults, std::make_unique<X11GlobalHotKeys>(), selection, controls);
        QVERIFY(manager.playPauseRegistered());

        xdotool({"key", "ctrl+alt+e"});
        QTRY_COMPARE(controls.calls, QStringList{"togglePlayPause"});

        // Held long enough for the server to repeat it.
        xdotool({"keydown", "ctrl+alt+e"});
        QTest::qWait(1500);
        xdotool({"keyup", "e", "alt", "ctrl"});
        QTRY_COMPARE(controls.calls.size(), 2);
        QTest::qWait(200);
        QCOMPARE(controls.calls.size(), 2);

        // With Num Lock on the modifier state differs; the combination still fires.
        xdotool({"key", "Num_Lock"});
        xdotool({"key", "ctrl+alt+e"});
        xdotool({"key", "Num_Lock"});
        QTRY_COMPARE(controls.calls.size(), 3);
    }

    void captureFromMousepadKeepsTheClipboard_data()
    {
        // What another application left on the clipboard, target by target.
        QTest::addColumn<ClipboardContent>("before");

        QTest::newRow("plain text and HTML") << ClipboardContent{{"text/plain", "before: plain\n"},
                                                                 {"text/html", "<i>before</i> <b>html</b>"}};
        // Larger than one request: read and served in pieces (INCR).
        QByteArray image(3 * 1024 * 1024 + 17, Qt::Uninitialized);
        for (qsizetype i = 0; i < image.size(); ++i)
            image[i] = char((i * 7919) >> 3);
        QTest::newRow("a large image beside text")
            << ClipboardContent{{"image/png", image}, {"UTF8_STRING", "caption"}};
    }

    // The whole path: the shortcut held down in front of a text editor, the copy, the restore.
    void captureFromMousepadKeepsTheClipboard()
    {
        QFETCH(ClipboardContent, before);

        ChildProcess owner;
        QVERIFY(ownClipboard(owner, QStringLiteral(QUILLVOX_CLIPBOARD_OWNER), before, m_dir.path()));

        const QByteArray text = "Narrate this line.\nAnd  this one, with spaces.  ";
        ChildProcess editor;
        QVERIFY(!openInMousepad(editor, m_dir.filePath(QStringLiteral("narrate%1.txt").arg(++m_files)), text)
                     .isEmpty());
        xdotool({"key", "ctrl+a"});

        const auto defaults = freshDefaults();
        RecordingControls controls;
        TextCaptureManager &capture = TextCaptureManager::shared();
        HotkeyManager manager(*defaults, std::make_unique<X11GlobalHotKeys>(), capture, controls);

        // Held down while the capture runs, as a user's fingers are.
        xdotool({"keydown", "ctrl+alt+s"});
        QTRY_COMPARE(controls.calls, QStringList{u"speak:" + QString::fromUtf8(text)});
        xdotool({"keyup", "s", "alt", "ctrl"});

        const QList<QByteArray> targets = clipboardBytes(QStringLiteral("TARGETS")).split('\n');
        for (const auto &[target, bytes] : before) {
            QVERIFY2(targets.contains(target.toLatin1()), qPrintable(target));
            QVERIFY2(clipboardBytes(target) == bytes, qPrintable(target));
        }
    }
};

QTEST_MAIN(TestX11Capture)
#include "tst_x11capture.moc"
