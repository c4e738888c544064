// SPDX-License-Identifier: GPL-3.0-or-later
// The floating widget without a desktop: its state machine on a manual clock, its actions on a real
// narration controller over the null sink, its colours and labels, and its window on the offscreen
// platform.
#include "ManualClock.h"

#include "account/KeychainHelper.h"
#include "core/UserDefaults.h"
#include "platform/null/MemorySecretStore.h"
#include "platform/null/NullAudioSink.h"
#include "platform/null/NullPanelHints.h"
#include "speech/NarrationServices.h"
#include "speech/SpeechManager.h"
#include "widget/FloatingWidgetViewModel.h"
#include "widget/FloatingWindowController.h"
#include "widget/WaveformView.h"
#include "widget/WidgetPalette.h"

#include <QQuickView>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using PlayState = FloatingWidgetViewModel::PlayState;
using namespace std::chrono_literals;

namespace {

QByteArray silence(double seconds)
{
    return QByteArray(qsizetype(seconds * SpeechManager::kSampleRateHz) * 2, '\0');
}

} // namespace

class TestFloatingWidget : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    std::unique_ptr<UserDefaults> m_defaults;
    std::unique_ptr<KeychainHelper> m_keychain;
    NoSelection m_selection;
    NoAccount m_account;
    NullAudioSink *m_sink = nullptr;
    std::unique_ptr<SpeechManager> m_speech;
    ManualClock m_clock;

private Q_SLOTS:
    void initTestCase()
    {
        QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
        m_defaults = std::make_unique<UserDefaults>(m_dir.filePath(QStringLiteral("settings.conf")));
        m_keychain =
            std::make_unique<KeychainHelper>(QStringLiteral("test"), std::make_unique<MemorySecretStore>());
    }

    void init()
    {
        auto sink = std::make_unique<NullAudioSink>(NullAudioSink::Clock::Manual);
        m_sink = sink.get();
        SpeechManager::Services services;
        services.defaults = m_defaults.get();
        services.keychain = m_keychain.get();
        services.selection = &m_selection;
        services.account = &m_account;
        services.audioSink = std::move(sink);
        m_speech = std::make_unique<SpeechManager>(std::move(services));
    }

    void cleanup() { m_speech.reset(); }

    // Steps: "in"/"out" hover events, "force"/"unforce" the pin, "toggle" the expand button, "+N" lets N ms
    // pass.
    void hoverCollapse_data()
    {
        QTest::addColumn<QStringList>("steps");
        QTest::addColumn<bool>("expanded");
        QTest::newRow("hover expands") << QStringList{"in"} << true;
        QTest::newRow("still expanded at 199 ms") << QStringList{"in", "out", "+199"} << true;
        QTest::newRow("collapsed at 200 ms") << QStringList{"in", "out", "+200"} << false;
        QTest::newRow("back within the delay") << QStringList{"in", "out", "+150", "in", "+500"} << true;
        QTest::newRow("a second leave restarts the delay")
            << QStringList{"in", "out", "+150", "out", "+100"} << true;
        QTest::newRow("pinned: leaving schedules nothing")
            << QStringList{"force", "in", "out", "+500"} << true;
        QTest::newRow("pinned after the collapse was scheduled")
            << QStringList{"in", "out", "+100", "force", "+500"} << true;
        QTest::newRow("unpinned before the collapse runs")
            << QStringList{"in", "out", "force", "+100", "unforce", "+500"} << false;
        QTest::newRow("expand button pins") << QStringList{"toggle", "out", "+500"} << true;
        QTest::newRow("expand button again unpins")
            << QStringList{"toggle", "toggle", "out", "+200"} << false;
    }

    void hoverCollapse()
    {
        QFETCH(QStringList, steps);
        QFETCH(bool, expanded);
        FloatingWidgetViewModel vm(*m_speech, m_clock);
        for (const QString &step : steps) {
            if (step == u"in" || step == u"out")
                vm.setHovered(step == u"in");
            else if (step == u"force" || step == u"unforce")
                vm.setForceExpanded(step == u"force");
            else if (step == u"toggle")
                vm.toggleFullControls();
            else
                m_clock.advance(std::chrono::milliseconds(step.mid(1).toInt()));
        }
        QCOMPARE(vm.isExpanded(), expanded);
        QCOMPARE(vm.isHovered(), steps.filter(QRegularExpression("^(in|out)$")).last() == u"in");
        QCOMPARE(vm.showFullControls(), steps.count(QStringLiteral("toggle")) == 1);
    }

    // Processing, content, playing: the state the buttons show. Processing wins over everything.
    void playState()
    {
        using P = PlayState;
        const std::tuple<bool, bool, bool, PlayState> rows[] = {{true, true, true, P::Loading},
                                                                {true, false, false, P::Loading},
                                                                {false, false, true, P::Idle},
                                                                {false, true, true, P::Playing},
                                                                {false, true, false, P::Paused}};
        for (const auto &[processing, content, playing, state] : rows)
            QCOMPARE(FloatingWidgetViewModel::playStateFor(processing, content, playing), state);
    }

    // Skips and seeks on a real controller playing 10 s of audio; -1: no seek at all.
    void seeking_data()
    {
        QTest::addColumn<double>("audioSeconds");
        QTest::addColumn<double>("heardSeconds");
        QTest::addColumn<QString>("action");
        QTest::addColumn<qint64>("frame");
        QTest::newRow("skip back at 3 s clamps to 0") << 10.0 << 3.0 << "back" << qint64(0);
        QTest::newRow("skip back at 7 s") << 10.0 << 7.0 << "back" << qint64(48000);
        QTest::newRow("skip forward at 2 s") << 10.0 << 2.0 << "forward" << qint64(168000);
        QTest::newRow("seek to 4 s") << 10.0 << 0.0 << "seek 4" << qint64(96000);
        QTest::newRow("seek past the end goes to the end") << 10.0 << 0.0 << "seek 60" << qint64(240000);
        QTest::newRow("seek without audio does nothing") << 0.0 << 0.0 << "seek 4" << qint64(-1);
    }

    void seeking()
    {
        QFETCH(double, audioSeconds);
        QFETCH(double, heardSeconds);
        QFETCH(QString, action);
        QFETCH(qint64, frame);
        FloatingWidgetViewModel vm(*m_speech, m_clock);
        if (audioSeconds > 0) {
            m_speech->replayStoredAudio(silence(audioSeconds));
            QTRY_VERIFY(m_speech->isPlaying());
            for (int i = 0; i < int(heardSeconds * 10); ++i)
                m_sink->advance(2400);
        }
        QSignalSpy seeks(m_speech.get(), &SpeechManager::seekPerformed);
        if (action == u"back")
            vm.skipBack();
        else if (action == u"forward")
            vm.skipForward();
        else
            vm.seekToTime(action.mid(5).toDouble());
        if (frame < 0) {
            QTest::qWait(150); // three seek debounces
            QCOMPARE(seeks.size(), 0);
            return;
        }
        QTRY_COMPARE(seeks.size(), 1);
        QCOMPARE(seeks.first().first().toLongLong(), frame);
    }

    void labels()
    {
        QCOMPARE(WidgetFormat::timeLabel(65.4), u"1:05"_qs);
        QCOMPARE(WidgetFormat::timeLabel(-3), u"0:03"_qs);    // shown as positive
        QCOMPARE(WidgetFormat::timeLabel(59.5), u"1:00"_qs);  // rounded
        QCOMPARE(WidgetFormat::timeLabel(3600), u"60:00"_qs); // no hour field
        QCOMPARE(WidgetFormat::speedLabel(2.0), u"2.0x"_qs);
    }

    void barColors_data()
    {
        QTest::addColumn<QString>("themeRaw");
        QTest::addColumn<QList<QColor>>("colors");
        const auto grey = [](double g) { return QColor::fromRgbF(float(g), float(g), float(g)); };
        const QList<QColor> defaults{grey(1.0), grey(0.92), grey(0.84), grey(0.76), grey(0.68), grey(0.6)};
        QTest::newRow("Default runs from white to grey 0.6") << "Default" << defaults;
        QTest::newRow("an unknown theme falls back to Default") << "Plaid" << defaults;
        QTest::newRow("Sunset blends through its middle colour")
            << "Sunset"
            << QList<QColor>{QColor::fromRgbF(1.0f, 0.5f, 0.2f),   QColor::fromRgbF(1.0f, 0.46f, 0.32f),
                             QColor::fromRgbF(1.0f, 0.42f, 0.44f), QColor::fromRgbF(1.0f, 0.44f, 0.5f),
                             QColor::fromRgbF(1.0f, 0.52f, 0.5f),  QColor::fromRgbF(1.0f, 0.6f, 0.5f)};
    }

    void barColors()
    {
        QFETCH(QString, themeRaw);
        QFETCH(QList<QColor>, colors);
        FloatingWidgetViewModel vm(*m_speech, m_clock);
        QSignalSpy repaint(&vm, &FloatingWidgetViewModel::paletteChanged);
        m_speech->setWidgetThemeRawValue(themeRaw);
        const QList<QColor> actual = vm.palette().barColors;
        QCOMPARE(actual.size(), colors.size());
        for (qsizetype i = 0; i < colors.size(); ++i) {
            const QColor &a = actual[i], &e = colors[i];
            QVERIFY2(qAbs(a.redF() - e.redF()) < 0.005 && qAbs(a.greenF() - e.greenF()) < 0.005 &&
                         qAbs(a.blueF() - e.blueF()) < 0.005,
                     qPrintable(QStringLiteral("bar %1: %2, expected %3").arg(i).arg(a.name(), e.name())));
        }
        m_speech->setWidgetTheme(WidgetTheme::Crimson);
        QVERIFY(!repaint.isEmpty());
    }

    // Playing, generating, the tallest bar: whether the timeline runs. Bars fall until they reach 0.01.
    void timelineRunsOnlyWhileSomethingMoves()
    {
        const std::tuple<bool, bool, float, bool> rows[] = {{false, false, 0.0f, false},
                                                            {false, false, 0.01f, false},
                                                            {false, false, 0.02f, true},
                                                            {true, false, 0.0f, true},
                                                            {false, true, 0.0f, true}};
        for (const auto &[playing, processing, tallestBar, runs] : rows)
            QCOMPARE(WaveformView::shouldRun(playing, processing, {0, 0, tallestBar, 0, 0, 0}), runs);
    }

    void waveformFollowsPlayback()
    {
        WaveformView view;
        view.setSpeech(m_speech.get());
        QVERIFY(!view.isRunning());
        m_speech->replayStoredAudio(silence(5));
        QTRY_VERIFY(m_speech->isPlaying());
        QVERIFY(view.isRunning());
        // No level for longer than the staleness threshold: the idle wave, between 0.2 and 0.35 of the
        // range above the minimum.
        view.advanceFrame(1000.0, 0.0);
        for (qreal h : view.barHeights())
            QVERIFY2(h >= 3 + 0.2 * 0.85 * 0.9 * 21 - 0.01 && h <= 3 + 0.35 * 21 + 0.01,
                     qPrintable(QString::number(h)));
        m_speech->stop();
        QVERIFY(!view.isRunning()); // reset on stop: nothing left to fall
        const QList<qreal> rest(WaveformView::kBarCount, 3.0);
        view.advanceFrame(1000.1, 0.0);
        QCOMPARE(view.barHeights(), rest);
    }

    void windowPlacementShapeAndDrag_data()
    {
        QTest::addColumn<bool>("compositing");
        QTest::newRow("composited") << true;
        QTest::newRow("bare window manager") << false;
    }

    void windowPlacementShapeAndDrag()
    {
        QFETCH(bool, compositing);
        FloatingWindowController controller({.speech = m_speech.get(),
                                             .clock = &m_clock,
                                             .hints = std::make_unique<NullPanelHints>(compositing)});
        QQuickView *window = controller.window();
        QVERIFY2(window->status() == QQuickView::Ready, qPrintable(window->errors().value(0).toString()));
        QVERIFY(window->flags().testFlags(Qt::WindowDoesNotAcceptFocus | Qt::WindowStaysOnTopHint | Qt::Tool |
                                          Qt::FramelessWindowHint));

        controller.showWidget();
        const QRect area = QGuiApplication::primaryScreen()->availableGeometry();
        QCOMPARE(window->geometry(), QRect(area.x() + (area.width() - 340) / 2, area.y() + 40, 340, 140));
        QCOMPARE(window->mask().isEmpty(), compositing);
        if (!compositing) {
            QVERIFY(!window->mask().contains(QPoint(0, 0)));
            QVERIFY(window->mask().contains(QPoint(170, 70)));
        }

        FloatingWidgetViewModel *vm = controller.viewModel();
        QSignalSpy dragging(vm, &FloatingWidgetViewModel::isDraggingChanged);
        const QPoint start = window->position();
        controller.pressAt(QPointF(500, 60));
        controller.dragTo(QPointF(500, 60)); // no motion yet: still a click
        controller.release();
        QCOMPARE(dragging.size(), 0);
        controller.pressAt(QPointF(500, 60));
        controller.dragTo(QPointF(530, 80));
        QVERIFY(vm->isDragging());
        QCOMPARE(window->position(), start + QPoint(30, 20));
        controller.release();
        QVERIFY(!vm->isDragging());

        controller.hideWidget();
        QVERIFY(!controller.isWidgetVisible());
    }
};

QTEST_MAIN(TestFloatingWidget)
#include "tst_floatingwidget.moc"
