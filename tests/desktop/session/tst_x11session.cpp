// SPDX-License-Identifier: GPL-3.0-or-later
// Quillvox as a user runs it on X11: `quillvox` in the background, text selected in mousepad and the
// global shortcuts pressed with xdotool, speech from the dev server in own-key mode and sound through a
// PulseAudio daemon of the test's own whose null sink is recorded.
#include "AppUnderTest.h"
#include "PulseServer.h"

#include <QJsonArray>

#include <memory>

// About 9 s of tone: long enough to pause, resume and stop it while it plays.
const QString kLine = QStringLiteral("Narrate only this line: the quick brown fox jumps over the lazy dog, "
                                     "then runs back across the wide green field and does it all again.");
const ClipboardContent kClipboard{{"text/plain", "before: plain\n"},
                                  {"text/html", "<i>before</i> <b>html</b>"}};

// Long enough for a capture (0.1 s copy wait) and a request to the local server to have happened.
constexpr int kNothingHappensMs = 1500;

class TestX11Session : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir{QDir::tempPath() + QStringLiteral("/qv-session-XXXXXX")};
    std::unique_ptr<PulseServer> m_pulse;
    DevServer m_server;
    ChildProcess m_editor;

    qint64 recordedSamples() const { return qint64(m_pulse->recorded().size()); }

    // Whether anything was heard from sample `from` on (to `to`, or to the end of the recording).
    bool heard(qint64 from, qint64 to = -1) const
    {
        const std::vector<float> all = m_pulse->recorded();
        to = to < 0 ? qint64(all.size()) : std::min(to, qint64(all.size()));
        return from < to && findSound(std::vector<float>(all.begin() + from, all.begin() + to)).start >= 0;
    }

    // Silence for a while, once the sound server has played out what it held.
    bool staysSilent()
    {
        QTest::qWait(300);
        const qint64 from = recordedSamples();
        QTest::qWait(700);
        return recordedSamples() - from > PulseServer::kRateHz / 2 && !heard(from);
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (const QString lack = desktopLacks({"pulseaudio", "mousepad", "xdotool", "xclip"});
            !lack.isEmpty())
            QSKIP(qPrintable(lack));
        QVERIFY(m_dir.isValid());

        // Own-key mode: the dev server's key in this test's keychain service.
        QCOMPARE(AppUnderTest().storeKey(), QString());

        m_pulse = std::make_unique<PulseServer>(m_dir.filePath(QStringLiteral("pulse")));
        QVERIFY(m_pulse->start());
        QVERIFY(m_pulse->startRecorder());
        // The whole body at once: its log line lands as soon as it is asked for.
        QVERIFY2(m_server.start({"--synth", "sine", "--pace", "0"}), qPrintable(m_server.errorString()));

        QVERIFY(!openInMousepad(m_editor, m_dir.filePath("text.txt"),
                                "A first line, which is not narrated.\n" + kLine.toUtf8())
                     .isEmpty());
    }

    // The default shortcuts, one after the other, on one narration.
    void shortcutsNarrateAndControlPlayback()
    {
        AppUnderTest app(AppUnderTest::Accessibility::Off);
        app.useServer(m_server);
        app.usePulse(m_pulse->address());
        AppUnderTest::setSettings({{"hasCompletedOnboarding", true}}, true);
        // It answers once its shortcuts are grabbed.
        QVERIFY(app.start());
        const QJsonObject before = app.status();
        const QJsonArray shortcuts = before[u"shortcuts"].toArray();
        QCOMPARE(shortcuts.size(), 6);
        for (const QJsonValue &row : shortcuts)
            QVERIFY2(row[u"registered"].toBool(), qPrintable(row[u"action"].toString()));
        QCOMPARE(before[u"playbackSpeed"].toDouble(), 1.0);

        ChildProcess owner;
        QVERIFY(ownClipboard(owner, QStringLiteral(QUILLVOX_CLIPBOARD_OWNER), kClipboard, m_dir.path()));
        xdotool({"key", "ctrl+End", "shift+Home"});
        const qint64 start = recordedSamples();
        xdotool({"key", "ctrl+alt+s"});
        QTRY_COMPARE_WITH_TIMEOUT(m_server.narratedTexts(), QStringList{kLine}, 10000);
        QTRY_VERIFY_WITH_TIMEOUT(heard(start), 10000);

        QTRY_VERIFY(app.status()[u"isPlaying"].toBool());
        xdotool({"key", "ctrl+alt+e"});
        QTRY_VERIFY(!app.status()[u"isPlaying"].toBool());
        QVERIFY2(staysSilent(), "still sounding while paused");
        const qint64 resumed = recordedSamples();
        xdotool({"key", "ctrl+alt+e"});
        QTRY_VERIFY_WITH_TIMEOUT(heard(resumed), 5000);

        xdotool({"key", "ctrl+alt+t"});
        QTRY_COMPARE(app.status()[u"playbackSpeed"].toDouble(), 1.25);

        QVERIFY(app.status()[u"isPlaying"].toBool());
        xdotool({"key", "ctrl+alt+q"});
        QTRY_VERIFY(!app.status()[u"hasContent"].toBool());
        QVERIFY(!app.status()[u"isPlaying"].toBool());
        QVERIFY2(staysSilent(), "still sounding after stop");

        // The caret alone, no selection: nothing to narrate.
        xdotool({"key", "ctrl+End"});
        xdotool({"key", "ctrl+alt+s"});
        QTest::qWait(kNothingHappensMs);
        QCOMPARE(m_server.narratedTexts().size(), 1);

        QVERIFY(app.stop());
    }
};

QTEST_GUILESS_MAIN(TestX11Session)
#include "tst_x11session.moc"
