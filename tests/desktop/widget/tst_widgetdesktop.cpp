// SPDX-License-Identifier: GPL-3.0-or-later
// The floating widget as a user meets it: the app signed in through the dev server, a maximised editor
// under openbox with xcompmgr compositing, the controls found by their accessible names and clicked with
// the pointer.
#include "AppUnderTest.h"

#include "account/KeychainHelper.h"

#include <QImage>

namespace {

constexpr int kWidth = 340;
constexpr int kHeight = 140;

} // namespace

class TestWidgetDesktop : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    DevServer m_server;
    ChildProcess m_compositor;
    ChildProcess m_editor;
    AppUnderTest m_app;
    QByteArray m_editorWindow;
    QByteArray m_widgetWindow;

    bool startApp()
    {
        if (!m_app.start())
            return false;
        m_widgetWindow = visibleWindows(QStringLiteral("Quillvox"), 20000).value(0);
        // The accessibility tree is there a moment after the window.
        return !m_widgetWindow.isEmpty() &&
               !m_app.waitForControl(QStringLiteral("Open Settings"), 0, 10000).isEmpty();
    }

    void stopApp()
    {
        QVERIFY(m_app.stop());
        QTRY_VERIFY_WITH_TIMEOUT(visibleWindows(QStringLiteral("Quillvox")).isEmpty(), 5000);
    }

    QRect widgetGeometry() const { return windowGeometry(m_widgetWindow); }

private Q_SLOTS:
    void initTestCase()
    {
        if (const QString lack = desktopLacks(); !lack.isEmpty())
            QSKIP(qPrintable(lack));
        QVERIFY(m_dir.isValid());
        m_compositor.process.start(QStringLiteral("xcompmgr"), QStringList());
        QVERIFY(m_compositor.process.waitForStarted());

        QVERIFY2(m_server.start({"--synth", "sine", "--pace", "0"}), qPrintable(m_server.errorString()));
        m_app.useServer(m_server);
        const QUrlQuery session = m_server.signIn();
        for (const auto &[item, key] : {std::pair{"access_token", KeychainKey::accessToken},
                                        std::pair{"refresh_token", KeychainKey::refreshToken}})
            QVERIFY(KeychainHelper::shared().save(session.queryItemValue(QLatin1String(item)), key));
        AppUnderTest::setSettings({{"hasCompletedOnboarding", true}});

        m_editorWindow = openInMousepad(
            m_editor, m_dir.filePath("article.txt"),
            QByteArray("The widget floats above this editor while it reads these words aloud, and the editor "
                       "stays the window that has the keyboard the whole time. ")
                .repeated(6));
        QVERIFY(!m_editorWindow.isEmpty());
        xdotool({"windowstate", "--add", "MAXIMIZED_VERT,MAXIMIZED_HORZ", m_editorWindow});
        xdotool({"mousemove", "200", "600"}); // away from where the widget will be
        QVERIFY(startApp());
    }

    void appearsAtTheTopCentreAboveTheEditor()
    {
        QCOMPARE(widgetGeometry(), QRect((screenSize().width() - kWidth) / 2, 40, kWidth, kHeight));

        const QByteArray states =
            runProgram(QStringLiteral("xprop"), {"-id", m_widgetWindow, "_NET_WM_STATE", "_NET_WM_DESKTOP"});
        for (const char *state :
             {"_NET_WM_STATE_ABOVE", "_NET_WM_STATE_SKIP_TASKBAR", "_NET_WM_STATE_SKIP_PAGER",
              "_NET_WM_DESKTOP(CARDINAL) = 4294967295"}) // every workspace
            QVERIFY2(states.contains(state), states.constData());
        // Later in the stacking list is higher on the screen.
        const QByteArray stacking =
            runProgram(QStringLiteral("xprop"), {"-root", "_NET_CLIENT_LIST_STACKING"});
        const auto position = [&](const QByteArray &window) {
            return stacking.indexOf(QByteArray::number(window.toULongLong(), 16));
        };
        QVERIFY2(position(m_editorWindow) >= 0 && position(m_widgetWindow) > position(m_editorWindow),
                 stacking.constData());
    }

    void hoverShowsTheControlsAndLeavingHidesThem()
    {
        QVERIFY(m_app.control(QStringLiteral("Skip back 5 seconds")).isEmpty());
        pointAt(widgetGeometry().center());
        QTRY_VERIFY_WITH_TIMEOUT(!m_app.control(QStringLiteral("Skip back 5 seconds")).isEmpty(), 5000);
        QVERIFY(!m_app.control(QStringLiteral("Expand controls")).isEmpty());
        xdotool({"mousemove", "200", "600"});
        QTRY_VERIFY_WITH_TIMEOUT(m_app.control(QStringLiteral("Skip back 5 seconds")).isEmpty(), 5000);
    }

    void buttonsDrivePlaybackAndLeaveTheEditorActive()
    {
        xdotool({"windowactivate", "--sync", m_editorWindow});
        xdotool({"key", "--clearmodifiers", "ctrl+a"});
        const auto editorActive = [this] {
            return xdotool({"getactivewindow"}).trimmed() == QByteArray::number(m_editorWindow.toULongLong());
        };
        QVERIFY(editorActive());

        QVERIFY(m_app.click(QStringLiteral("Play")));
        QTRY_VERIFY_WITH_TIMEOUT(m_app.status().value(QStringLiteral("isPlaying")).toBool(), 15000);
        QVERIFY(editorActive());

        QVERIFY(m_app.click(QStringLiteral("Pause")));
        QTRY_VERIFY(!m_app.status().value(QStringLiteral("isPlaying")).toBool());
        QVERIFY(m_app.walk({"=Play", "Expand controls", "Stop narration"}));
        QTRY_VERIFY(!m_app.status().value(QStringLiteral("hasContent")).toBool());
        QVERIFY(editorActive());
        // What was narrated is the editor's selection (its exchange is logged once the stop ended it).
        const auto narrated = [this] { return m_server.narratedTexts(u"/api/tts/stream").join(u'|'); };
        QTRY_VERIFY2(narrated().contains(QStringLiteral("floats above this editor")), qPrintable(narrated()));
        // Pinned: the controls stay when the pointer leaves.
        xdotool({"mousemove", "200", "600"});
        QTest::qWait(500);
        QVERIFY(m_app.click(QStringLiteral("Collapse controls")));
        xdotool({"mousemove", "200", "600"});
    }

    // The bars at rest are 3 pixels high in the middle of their well: their centre pixels carry the
    // theme's colours.
    void themeColoursTheBars()
    {
        const QString theme = QStringLiteral("Crimson");
        const QColor firstBar = QColor::fromRgbF(0.9f, 0.15f, 0.25f);
        const QColor lastBar = QColor::fromRgbF(1.0f, 0.5f, 0.6f);
        stopApp();
        AppUnderTest::setSettings({{"widgetTheme", theme}});
        QVERIFY(startApp());
        // The bars' well starts 12 px right of the play button, is 44 wide and shares its middle.
        const QRect play = m_app.control(QStringLiteral("Play"));
        const qreal firstBarLeft = play.right() + 1 + 12 + (44 - (6 * 2.5 + 5 * 2.5)) / 2;
        for (const auto &[bar, expected] : {std::pair{0, firstBar}, std::pair{5, lastBar}}) {
            const QString pixel =
                QStringLiteral("1x1+%1+%2").arg(int(firstBarLeft + bar * 5 + 1)).arg(play.center().y());
            QColor actual;
            const auto near = [&] {
                actual = QImage::fromData(runProgram(QStringLiteral("import"),
                                                     {"-window", "root", "-crop", pixel, "png:-"}),
                                          "PNG")
                             .pixelColor(0, 0);
                return std::max({qAbs(actual.red() - expected.red()), qAbs(actual.green() - expected.green()),
                                 qAbs(actual.blue() - expected.blue())}) <= 12;
            };
            QTRY_VERIFY2_WITH_TIMEOUT(
                near(), qPrintable(u"bar " + QString::number(bar) + u" is " + actual.name()), 5000);
        }
    }

    // Three sentences, each longer than half of what one own-key request takes, go out as three pieces:
    // each sentence starts in the audio exactly where its piece's audio starts. "Now reading" shows
    // each within half a second of that place, and a click on it goes back there.
    void followAlongShowsTheSentenceBeingHeard()
    {
        stopApp();
        for (const KeychainKey key : {KeychainKey::accessToken, KeychainKey::refreshToken})
            KeychainHelper::shared().remove(key);
        QCOMPARE(m_app.storeKey(), QString());
        AppUnderTest::setSettings({{"showWidgetWithOwnKey", true}});
        QVERIFY(startApp());
        pointAt(widgetGeometry().center());
        QVERIFY(m_app.walk({"Expand controls", "=Collapse controls"}));
        const QRect withoutText = widgetGeometry();
        QCOMPARE(withoutText.size(), QSize(kWidth, kHeight));

        QStringList sentences;
        for (const char *ordinal : {"first", "second", "third"})
            sentences << QStringLiteral("This is the %1 sentence%2.")
                             .arg(QLatin1String(ordinal),
                                  QStringLiteral(", and it goes on a little further").repeated(64));
        ChildProcess watcher;
        QVERIFY(m_app.watchDescription(watcher, QStringLiteral("Now reading")));
        QString shown;
        const auto shows = [&](const QString &sentence) {
            while (watcher.process.canReadLine())
                shown = QString::fromUtf8(watcher.process.readLine()).chopped(1);
            return shown == sentence;
        };
        const auto playerctl = [](const QStringList &arguments) {
            return runProgram(QStringLiteral("playerctl"), QStringList{"-p", "quillvox"} + arguments);
        };
        const auto position = [&] { return playerctl({"position"}).toDouble(); };
        m_app.run({"--speak", sentences.join(u' ')});
        const auto shownInTime = [&](qsizetype i, double start) {
            QTRY_VERIFY_WITH_TIMEOUT(shows(sentences[i]), 15000);
            const double at = position();
            qInfo() << "sentence" << i + 1 << "starts" << start << "shown at" << at;
            QCOMPARE_GE(at, start - 0.05);
            QCOMPARE_LE(at, start + 0.5);
        };
        shownInTime(0, 0.0);
        if (QTest::currentTestFailed())
            return;

        // Where each piece's audio starts, from what the server sent for each.
        const auto speechRequests = [this] {
            QList<QJsonObject> requests = m_server.requests();
            requests.removeIf(
                [](const QJsonObject &r) { return r[u"path"].toString() != u"/v1/audio/speech"; });
            return requests;
        };
        QList<QJsonObject> pieces;
        QTRY_COMPARE_WITH_TIMEOUT((pieces = speechRequests()).size(), 3, 30000);
        std::sort(pieces.begin(), pieces.end(), [&](const QJsonObject &a, const QJsonObject &b) {
            return DevServer::input(a) < DevServer::input(b); // "first" < "second" < "third"
        });
        QList<double> starts{0.0};
        for (const QJsonObject &piece : pieces.first(2))
            starts << starts.last() +
                          double(piece.value(QStringLiteral("bodyBytesSent")).toInteger()) / 48000.0;

        for (qsizetype i = 1; i < 3; ++i) {
            playerctl({"position", QString::number(starts[i] - 1.5)});
            QTRY_VERIFY_WITH_TIMEOUT(shows(sentences[i - 1]), 5000);
            shownInTime(i, starts[i]);
            if (QTest::currentTestFailed())
                return;
            QCOMPARE(widgetGeometry(), withoutText.adjusted(0, 0, 0, 44)); // grown downwards
        }
        QVERIFY(playerctl({"metadata", "xesam:comment"}).startsWith("This is the third sentence"));

        QTRY_VERIFY_WITH_TIMEOUT(position() > starts[2] + 1.0, 5000);
        QVERIFY(m_app.click(QStringLiteral("Now reading")));
        QTRY_VERIFY_WITH_TIMEOUT(position() < starts[2] + 0.8, 3000);
        QCOMPARE_GE(position(), starts[2] - 0.05);
        QVERIFY(shows(sentences[2]));
    }
};

QTEST_GUILESS_MAIN(TestWidgetDesktop)
#include "tst_widgetdesktop.moc"
