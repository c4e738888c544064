// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/null/NullAudioSink.h"
#include "speech/AudioEngine.h"
#include "speech/AudioLevelInterpolator.h"

#include <QRegularExpression>
#include <QTest>
#include <QTimer>
#include <QtEndian>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <mutex>
#include <new>
#include <numbers>
#include <numeric>
#include <vector>

// Counts heap traffic on the thread that sets the flag, to hold the render path to allocating nothing
// (Harness::countAllocations). The standard library's other forms of new and delete forward to these.
namespace {
thread_local bool t_countAllocations = false;
std::atomic<int> g_allocations{0};
std::atomic<int> g_frees{0};
} // namespace

void *operator new(std::size_t size)
{
    g_allocations += t_countAllocations;
    if (void *p = std::malloc(size ? size : 1))
        return p;
    throw std::bad_alloc();
}
void operator delete(void *p) noexcept
{
    g_frees += t_countAllocations && p;
    std::free(p);
}
void operator delete(void *p, std::size_t) noexcept
{
    operator delete(p);
}

namespace {

constexpr qint64 kRate = AudioEngine::kSampleRateHz;
constexpr int kTap = AudioEngine::kTapFrames;
constexpr qsizetype kChunkBytes = 9600;

template<typename Sample> QByteArray pcm(qint64 frames, Sample sample)
{
    QByteArray bytes(frames * 2, Qt::Uninitialized);
    for (qint64 i = 0; i < frames; ++i) {
        const double v = std::clamp(double(sample(i)), -1.0, 32767.0 / 32768.0);
        qToLittleEndian<qint16>(static_cast<qint16>(std::lround(v * 32768.0)), bytes.data() + 2 * i);
    }
    return bytes;
}

QByteArray sine(qint64 frames, double hz, double amplitude)
{
    return pcm(frames, [=](qint64 i) { return amplitude * std::sin(2 * std::numbers::pi * hz * i / kRate); });
}

// A different value on every frame of a 30,000-frame cycle, so a test can tell which frame it hears.
float rampSample(qint64 frame)
{
    return static_cast<float>((frame * 7) % 30000 - 15000) / 32768.0f;
}

std::size_t lastAudible(const std::vector<float> &x)
{
    std::size_t end = x.size();
    while (end > 0 && std::abs(x[end - 1]) <= 1e-4f)
        --end;
    return end;
}

// Records every pull (frames, device delay) and fills the frames with their running index.
class RecordingSource final : public AudioRenderSource
{
public:
    using Pulls = std::vector<std::pair<std::size_t, std::int64_t>>;
    void render(float *out, std::size_t frames, std::int64_t deviceDelayFrames) override
    {
        std::lock_guard lock(m_mutex);
        std::iota(out, out + frames, float(m_frames));
        m_frames += frames;
        m_pulls.push_back({frames, deviceDelayFrames});
    }
    Pulls pulls() const
    {
        std::lock_guard lock(m_mutex);
        return m_pulls;
    }
    std::size_t count() const { return pulls().size(); }

private:
    mutable std::mutex m_mutex;
    Pulls m_pulls;
    std::size_t m_frames = 0;
};

// An engine on a manual clock, with everything it emits collected, started unless told otherwise.
class Harness
{
public:
    explicit Harness(NullAudioSink::Clock clock = NullAudioSink::Clock::Manual, bool start = true)
        : sink(new NullAudioSink(clock))
        , engine(std::unique_ptr<AudioSink>(sink))
    {
        g_allocations = g_frees = 0;
        QObject::connect(&engine, &AudioEngine::bufferCompleted, [this](quint64 t) { completed.append(t); });
        QObject::connect(&engine, &AudioEngine::levelMeasured, [this](float l, double t) {
            levels.append({l, t});
        });
        QObject::connect(&engine, &AudioEngine::failed, [this](const QString &r) { failures.append(r); });
        if (start) {
            QVERIFY(engine.start());
            sink->advance(4800); // the sink's buffer for what it pulls grows now, while the device is idle
        }
    }

    // Schedules `audio` in consecutive slices of `chunk` bytes, tokens counting up from `firstToken`.
    QList<quint64> schedule(const QByteArray &audio, qsizetype chunk = kChunkBytes, quint64 firstToken = 1)
    {
        QList<quint64> tokens;
        for (qsizetype offset = 0; offset < audio.size(); offset += chunk) {
            tokens.append(firstToken + tokens.size());
            engine.scheduleBuffer(audio, offset, std::min(chunk, audio.size() - offset), tokens.last());
        }
        return tokens;
    }

    void advance(std::size_t frames, qint64 deviceDelay = 0)
    {
        t_countAllocations = countAllocations;
        const std::span<const float> pulled = sink->advance(frames, deviceDelay);
        t_countAllocations = false;
        if (!QTest::currentTestFailed()) // the render path allocates nothing, said once
            QCOMPARE(std::pair(g_allocations.load(), g_frees.load()), std::pair(0, 0));
        output.insert(output.end(), pulled.begin(), pulled.end());
        engine.deliverPending();
    }

    // Advances in steps until `count` completions have arrived or `limit` frames have passed.
    void playOut(qsizetype count, qint64 limit)
    {
        for (qint64 advanced = 0; completed.size() < count && advanced < limit; advanced += 480)
            advance(480);
    }

    qint64 position() const { return engine.sampleTime().value_or(-1); }
    bool silent() const
    {
        return std::ranges::all_of(output, [](float s) { return s == 0; });
    }
    // Whether the output starts with narration frames from `first` on, as rampSample() gives them.
    bool rampFrom(qint64 first, qint64 frames) const
    {
        return output.size() >= std::size_t(frames) &&
               std::all_of(output.begin(), output.begin() + frames,
                           [&](float s) { return s == rampSample(first++); });
    }

    NullAudioSink *sink;
    AudioEngine engine;
    QList<quint64> completed;
    QList<std::pair<float, double>> levels;
    QStringList failures;
    std::vector<float> output;
    bool countAllocations = false;
};

} // namespace

class TestAudioEngine : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Buffers of these lengths, rendered in steps of this many frames with this device delay.
    void completionsWaitForTheLastFrame()
    {
        const std::tuple<QList<int>, int, int> rows[] = {
            {{4800, 4800, 2400}, 100, 0},
            {{1000, 3000, 500}, 250, 6000}, // delay longer than a buffer
            {{4800, 1, 4799}, 333, 7},
            {{1000, 1000, 1000, 1000}, 2500, 1700}}; // steps spanning buffers
        for (const auto &[bufferFrames, step, deviceDelay] : rows) {
            Harness h;
            QList<qint64> ends(bufferFrames.size()); // the frame just after each buffer
            std::partial_sum(bufferFrames.begin(), bufferFrames.end(), ends.begin());
            const qint64 total = ends.last();
            // Each buffer is given an odd trailing byte, which it leaves out.
            const QByteArray audio = pcm(total, rampSample) + '\0';
            for (qsizetype i = 0; i < ends.size(); ++i)
                h.engine.scheduleBuffer(audio, (ends[i] - bufferFrames[i]) * 2, bufferFrames[i] * 2 + 1,
                                        quint64(i + 1));
            h.engine.markEndOfInput();
            h.engine.play();
            for (qint64 rendered = step; h.completed.size() < bufferFrames.size(); rendered += step) {
                QVERIFY(rendered < total + deviceDelay + 4 * step);
                h.advance(std::size_t(step), deviceDelay);
                const qint64 heard = std::clamp<qint64>(rendered - deviceDelay, 0, total);
                QCOMPARE(h.completed.size(),
                         std::ranges::count_if(ends, [heard](qint64 end) { return end <= heard; }));
                QCOMPARE(h.position(), heard);
            }
            QCOMPARE(h.completed, QList<quint64>({1, 2, 3, 4}).first(bufferFrames.size()));
            QVERIFY(h.rampFrom(0, total));
        }
    }

    // Frames rendered of three 4,800-frame buffers, and what the event loop alone brings: only the
    // completion that leaves nothing to hear wakes it; the others wait for deliverPending().
    void completionsWakeOnlyWhenAllIsHeard()
    {
        const std::pair<qint64, QList<quint64>> rows[] = {{9600, {}}, {14400, {1, 2, 3}}};
        for (const auto &[rendered, woken] : rows) {
            Harness h;
            h.schedule(sine(14400, 300, 0.4));
            h.engine.play();
            h.sink->advance(std::size_t(rendered));
            QTest::qWait(20);
            QCOMPARE(h.completed, woken);
            h.engine.deliverPending();
            QCOMPARE(h.completed.size(), rendered / 4800);
        }
    }

    // At a steady rate the position counts narration frames and never goes back, and the pitch stays. The
    // end mark brings the stretcher's tail out at once; without one, a stream that has run dry has it
    // flushed all the same, and plays on when more arrives.
    void steadyRate_data()
    {
        QTest::addColumn<float>("rate");
        QTest::addColumn<int>("deviceDelay");
        QTest::addColumn<bool>("endMark");
        for (float rate : {0.5f, 1.0f, 1.25f, 2.0f}) {
            for (int delay : {0, 960})
                QTest::addRow("%gx, delay %d", double(rate), delay) << rate << delay << true;
        }
        QTest::newRow("2x, stalled") << 2.0f << 0 << false;
    }

    void steadyRate()
    {
        QFETCH(float, rate);
        QFETCH(int, deviceDelay);
        QFETCH(bool, endMark);
        Harness h;
        h.engine.setRate(rate);
        const qint64 total = 8 * kRate + 1234;
        // Small buffers, so that rendering walks across several blocks of the queue.
        QList<quint64> tokens = h.schedule(sine(total, 440, 0.5), 480);
        if (endMark)
            h.engine.markEndOfInput();
        h.engine.setTapEnabled(true);
        h.countAllocations = true;
        h.engine.play();
        const qint64 expectedOutput = std::llround(double(total) / rate), window = 2 * kRate,
                     warmUp = 50 * 480;
        qint64 advanced = 0, previous = 0, before = 0;
        while (h.completed.size() < tokens.size() && advanced < 2 * expectedOutput + kRate) {
            h.advance(480, deviceDelay);
            advanced += 480;
            QVERIFY2(h.position() >= previous, "the position never goes back");
            previous = h.position();
            before = advanced == warmUp ? h.position() : before;
            if (advanced == warmUp + window) {
                const double moved = double(h.position() - before), expected = double(rate) * double(window);
                QVERIFY2(std::abs(moved - expected) <= 0.02 * expected, qPrintable(QString::number(moved)));
            }
        }
        QCOMPARE(h.completed, tokens);
        QCOMPARE(h.position(), total);
        // The step, and the stretcher's seek window of slack in the tail; a stalled stream waits 0.1 s more.
        const qint64 heardAfter = advanced - deviceDelay, slack = 480 + 1200 + (endMark ? 0 : kRate / 10);
        QVERIFY2(std::abs(heardAfter - expectedOutput) <= slack, qPrintable(QString::number(heardAfter)));
        const std::size_t end = lastAudible(h.output);
        std::size_t upward = 0; // zero crossings, away from either end
        for (std::size_t i = 4801; i < end - 4800; ++i)
            upward += h.output[i - 1] < 0 && h.output[i] >= 0;
        const double hz = double(upward) * double(kRate) / double(end - 9600);
        QVERIFY2(std::abs(hz - 440) <= 4.4, qPrintable(QStringLiteral("%1 Hz").arg(hz)));

        tokens += h.schedule(sine(kRate, 300, 0.4), kChunkBytes, tokens.last() + 1);
        h.engine.markEndOfInput();
        h.playOut(tokens.size(), 4 * kRate);
        QCOMPARE(h.completed, tokens);
        QCOMPARE(h.position(), total + kRate);
    }

    // Pause keeps the position and, while a request keeps the device up, renders silence; stop drops the
    // queue, completions already reported included, and the next narration starts clean.
    void pauseAndStop()
    {
        for (const float rate : {1.0f, 2.0f}) { // direct and stretched
            Harness h;
            h.engine.setRate(rate);
            const QByteArray audio = pcm(6 * kRate, rampSample);
            h.schedule(audio, 4800);
            // Prepared but not playing: the device runs, silent, and there is no position yet.
            h.engine.prepare();
            QVERIFY(h.sink->isActive());
            h.advance(960);
            QVERIFY(h.silent() && !h.engine.sampleTime());
            h.engine.play();
            h.advance(20 * 480);
            const qint64 position = h.position();
            const QList<quint64> completedBefore = h.completed;
            QVERIFY(position > 0);

            h.countAllocations = true;
            h.engine.pause();
            QVERIFY(!h.sink->isActive());
            h.output.clear();
            h.engine.prepare();
            h.advance(4800);
            QVERIFY(h.silent());
            QCOMPARE(h.position(), position);
            QCOMPARE(h.completed, completedBefore);
            h.engine.play();
            h.output.clear();
            h.advance(4800);
            QVERIFY(h.position() > position);
            QVERIFY(rate != 1.0f || h.rampFrom(position, 4800));

            // Rendered and reported, but not yet delivered when stop() comes.
            const QList<quint64> beforeStop = h.completed;
            const int discards = h.sink->discardCount();
            h.sink->advance(std::size_t(4800 / rate) + 4800);
            h.engine.stop();
            h.engine.deliverPending();
            QCOMPARE(h.completed, beforeStop);
            QVERIFY(!h.engine.sampleTime());
            QCOMPARE(h.sink->discardCount(), discards + 1);
            QVERIFY2(audio.isDetached(), "nothing of the narration is held after a stop");

            const QByteArray next = pcm(3000, rampSample);
            h.engine.scheduleBuffer(next, 0, next.size(), 100);
            h.engine.setRate(1.0f);
            h.engine.markEndOfInput();
            h.engine.play();
            h.output.clear();
            h.playOut(beforeStop.size() + 1, 2 * kRate);
            QCOMPARE(h.completed, beforeStop + QList<quint64>{100});
            QCOMPARE(h.position(), 3000);
            // Nothing of the old narration is left in the stretcher: the new audio starts at once.
            QVERIFY(h.rampFrom(0, 3000));
        }
    }

    // Rate changes while playing: the position never goes back, nothing is allocated, and there is no
    // click; back at 1x the stretcher is left at the next pause in the speech, never in the middle of a
    // sound. The audio, the rates and the frames each plays for, the last rate, the tail not checked.
    void rateChanges()
    {
        const QByteArray tone = sine(kRate, 440, 0.5);
        const std::tuple<QByteArray, QList<std::pair<float, qint64>>, float, std::size_t> rows[] = {
            {sine(6 * kRate, 440, 0.5),
             {{1.0f, kRate}, {2.0f, kRate}, {1.0f, kRate / 2}, {0.5f, kRate}, {4.0f, kRate / 4}},
             1.25f,
             2400},
            {tone + QByteArray(kRate, '\0') + tone, {{2.0f, 4800}}, 1.0f, 0}}; // back at 1x
        for (const auto &[audio, steps, lastRate, tail] : rows) {
            Harness h;
            const QList<quint64> tokens = h.schedule(audio);
            h.countAllocations = true;
            h.engine.play();
            qint64 previous = 0;
            for (const auto &[rate, frames] : steps) {
                h.engine.setRate(rate);
                for (qint64 done = 0; done < frames; done += 480) {
                    h.advance(480);
                    QVERIFY(h.position() >= previous);
                    previous = h.position();
                }
            }
            h.engine.setRate(lastRate);
            h.engine.markEndOfInput();
            h.playOut(tokens.size(), 10 * kRate);
            QCOMPARE(h.completed, tokens);
            QCOMPARE(h.position(), audio.size() / 2);
            // No click: no output frame steps from the last by more than a 440 Hz sine at 0.5 can (0.058).
            const auto end = h.output.begin() + std::ptrdiff_t(lastAudible(h.output) - tail);
            const auto click = std::adjacent_find(h.output.begin(), end,
                                                  [](float a, float b) { return std::abs(b - a) >= 0.08f; });
            QVERIFY2(click == end, qPrintable(QString::number(click - h.output.begin())));
        }
    }

    // Levels come only while the tap is on, from whole windows that start afresh when it comes back on.
    void levels()
    {
        // 375 Hz fits whole periods into 1,024 frames. Levels are eight times the RMS, up to 1.
        const qint64 frames = 20 * kTap;
        const std::pair<QByteArray, float> rows[] = {
            {QByteArray(frames * 2, '\0'), 0.0f},
            {sine(frames, 375, 0.1), float(0.1 / std::numbers::sqrt2 * 8)},
            {sine(frames, 375, 0.2), 1.0f}};
        for (const auto &[audio, level] : rows) {
            Harness h;
            h.schedule(audio);
            h.engine.play();
            h.advance(4 * kTap);
            QCOMPARE(h.levels.size(), 0);

            h.engine.setTapEnabled(true);
            const double before =
                std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
            h.advance(kTap / 2);
            h.advance(3 * kTap + kTap / 2);
            QCOMPARE(h.levels.size(), 4);
            double previous = 0;
            for (const auto &[measured, timestamp] : std::as_const(h.levels)) {
                QVERIFY2(std::abs(measured - level) < 1e-3f, qPrintable(QString::number(measured)));
                QVERIFY(timestamp >= previous);
                QVERIFY2(std::abs(timestamp - before) < 60, "timestamps are steady-clock seconds");
                previous = timestamp;
            }

            // Measured but not yet delivered when the tap goes off: dropped as well.
            h.sink->advance(2 * kTap + 300);
            h.engine.setTapEnabled(false);
            h.advance(4 * kTap);
            h.engine.setTapEnabled(true);
            h.advance(kTap - 1);
            QCOMPARE(h.levels.size(), 4);
            h.advance(1);
            QCOMPARE(h.levels.size(), 5);
            QVERIFY(std::abs(h.levels.last().first - level) < 1e-3f);
        }
    }

    void deviceFailures()
    {
        Harness h(NullAudioSink::Clock::Manual, false);
        // Unavailable at start: said at once, and again, after the call, when a request needs the device.
        h.sink->setOpenError(QStringLiteral("Connection refused"));
        QString error;
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("audio output unavailable"));
        QVERIFY(!h.engine.start(&error));
        QCOMPARE(error, QStringLiteral("Connection refused"));
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("audio output unavailable"));
        h.engine.prepare();
        QVERIFY(h.failures.isEmpty());
        QTRY_COMPARE(h.failures, QStringList{QStringLiteral("Connection refused")});
        h.failures.clear();
        h.sink->setOpenError({});
        h.engine.prepare();
        QVERIFY(h.sink->isActive());

        // Lost while playing: what was heard before is still completed, and the engine stops and closes.
        h.schedule(pcm(kRate, rampSample));
        h.engine.play();
        h.advance(4000);
        QCOMPARE(h.completed.size(), 0);
        h.sink->advance(4800);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("audio output lost"));
        h.sink->simulateFailure(QStringLiteral("Connection terminated"));
        h.engine.deliverPending();
        QCOMPARE(h.failures, QStringList{QStringLiteral("Connection terminated")});
        QCOMPARE(h.completed, QList<quint64>{1});
        QVERIFY(!h.engine.isPlaying() && !h.sink->isOpen());
        // How far playback got stays known, so that a narration can go on from there, until a stop.
        QVERIFY(h.engine.sampleTime() >= 4800 && h.engine.sampleTime() <= 8800);
        h.engine.stop();
        QVERIFY(!h.engine.sampleTime());
        // A second report of the same loss changes nothing; the next request reconnects.
        h.sink->simulateFailure(QStringLiteral("again"));
        h.engine.deliverPending();
        QCOMPARE(h.failures.size(), 1);
        h.engine.prepare();
        QCOMPARE(h.sink->openCount(), 2);
        h.schedule(pcm(1000, rampSample), kChunkBytes, 50);
        h.engine.play();
        h.advance(1000);
        QCOMPARE(h.completed, (QList<quint64>{1, 50}));
    }

    // The render side on a thread of its own while the GUI thread keeps scheduling, as a stream does.
    void realTimeClockPlaysToTheEnd()
    {
        for (const float rate : {1.0f, 2.0f}) {
            Harness h(NullAudioSink::Clock::RealTime);
            h.engine.setRate(rate);
            h.engine.setTapEnabled(true);
            // The first pieces before playing, the rest one at a time, as a stream's arrive.
            const QByteArray audio = sine(kRate / 2, 300, 0.4);
            QList<quint64> tokens = h.schedule(audio.first(4800), 1200);
            h.engine.play();
            QTimer feeder;
            QObject::connect(&feeder, &QTimer::timeout, [&] {
                tokens += h.schedule(audio.sliced(tokens.size() * 1200, 1200), 1200, tokens.size() + 1);
                if (tokens.size() * 1200 == audio.size()) {
                    feeder.stop();
                    h.engine.markEndOfInput();
                }
            });
            feeder.start(5);
            QTRY_COMPARE_WITH_TIMEOUT(h.completed.size(), audio.size() / 1200, 10000);
            QCOMPARE(h.completed, tokens);
            QCOMPARE(h.position(), audio.size() / 2);
            QVERIFY(!h.levels.isEmpty());

            // Stopped while playing: nothing of it completes afterwards.
            h.completed.clear();
            h.schedule(sine(kRate, 300, 0.4), kChunkBytes, 500);
            QTRY_VERIFY_WITH_TIMEOUT(h.position() > audio.size() / 2, 10000);
            h.engine.stop();
            const QList<quint64> beforeStop = h.completed;
            QTest::qWait(100);
            QCOMPARE(h.completed, beforeStop);
        }
    }

    // The null sink itself, which the cases above play on. Steps: "open", "refused" (an open that fails),
    // "close", "on"/"off", "discard", and "F/D": F frames of time pass, after which the device holds D
    // frames unheard. Then every pull the source saw (frames, device delay).
    void manualClock()
    {
        const std::pair<const char *, RecordingSource::Pulls> rows[] = {
            {"open on 100/30 50/80 10/0",
             {{100, 0}, {0, 30}, {50, 30}, {0, 80}, {10, 80}, {0, 0}}}, // latency carried
            {"open on 100/60 discard 50/20", {{100, 0}, {0, 60}, {50, 0}, {0, 20}}},
            {"open 64/0 on 100/40 off 100/0 on 10/0", {{100, 0}, {0, 40}, {10, 40}, {0, 0}}}, // opens paused
            {"refused on 10/0 open close on 10/0", {}}};
        for (const auto &[steps, pulls] : rows) {
            RecordingSource source;
            NullAudioSink sink;
            bool open = false, active = false;
            std::size_t pulledFrames = 0;
            for (const QString &step : QString::fromLatin1(steps).split(u' ')) {
                QString error;
                if (step == u"open") {
                    QVERIFY(sink.open(&source, &error));
                    open = true;
                    active = false;
                } else if (step == u"refused") {
                    sink.setOpenError(QStringLiteral("no device"));
                    QVERIFY(!sink.open(&source, &error));
                    QCOMPARE(error, QStringLiteral("no device"));
                    sink.setOpenError({});
                } else if (step == u"close") {
                    sink.close();
                    open = active = false;
                } else if (step == u"on" || step == u"off") {
                    sink.setActive(active = step == u"on");
                } else if (step == u"discard") {
                    sink.discardPending();
                } else {
                    const std::size_t frames = step.section(u'/', 0, 0).toUInt();
                    const std::span<const float> out = sink.advance(frames, step.section(u'/', 1).toInt());
                    QCOMPARE(out.size(), open ? frames : 0);
                    for (std::size_t f = 0; f < out.size(); ++f)
                        QCOMPARE(out[f], active ? float(pulledFrames + f) : 0.0f);
                    pulledFrames += active ? out.size() : 0;
                }
                QCOMPARE(std::pair(sink.isOpen(), sink.isActive()), std::pair(open, active));
            }
            QVERIFY(source.pulls() == pulls);
        }
    }

    void realTimeClockPullsOnlyWhileActive()
    {
        RecordingSource source;
        NullAudioSink sink(NullAudioSink::Clock::RealTime);
        QVERIFY(sink.open(&source, nullptr));
        QVERIFY(sink.advance(10).empty());
        QTest::qWait(50);
        QCOMPARE(source.count(), std::size_t(0));

        sink.setActive(true);
        QTRY_VERIFY(source.count() >= 5);
        sink.setActive(false);
        QTest::qWait(50);
        const std::size_t paused = source.count();
        QTest::qWait(100);
        QCOMPARE(source.count(), paused);

        sink.setActive(true);
        QTRY_VERIFY(source.count() > paused + 2);
        sink.close();
        const std::size_t closed = source.count();
        QTest::qWait(50);
        QCOMPARE(source.count(), closed);
        const RecordingSource::Pulls pulls = source.pulls();
        QVERIFY(std::ranges::all_of(pulls, [](const auto &pull) {
            return pull == std::pair<std::size_t, std::int64_t>(NullAudioSink::kRealTimeStepFrames, 0);
        }));
    }

    // How the widget's bars follow the measured levels. Bars 0 and 3 read the oldest of ten levels, bars 1
    // and 4 the newest; a bar moves by its smoothing factor towards level × its frequency weight. Levels
    // older than 0.15 s give the idle wave; without playback the bars fall to rest, a step per call.
    void bars()
    {
        AudioLevelInterpolator bars;
        QCOMPARE(bars.barLevel(-1, true, 1.0), 0.0f);
        QCOMPARE(bars.barLevel(6, true, 1.0), 0.0f);
        const auto expect = [&bars](double time, QList<float> expected) {
            for (int bar = 0; bar < 6; ++bar)
                QCOMPARE(bars.barLevel(bar, true, time), expected[bar]);
        };
        bars.push(1.0f, 4.85);
        expect(4.999, {0, 0.24f, 0, 0, 0.30f, 0});
        const auto wave = [](int bar) { return float(std::sin(0.4 * bar) * 0.075 + 0.275); }; // at 5 s
        expect(5.0, {wave(0), wave(1), wave(2), wave(3), wave(4), wave(5)});
        // Not playing: each call lowers a bar, whatever the time, down to zero and no further.
        const float idle = bars.barLevel(1, false, 100.0);
        QVERIFY(idle > 0 && idle < wave(1));
        for (int i = 0; i < 100; ++i)
            bars.barLevel(1, false, 100.0);
        QCOMPARE(bars.barLevel(1, false, 100.0), 0.0f);

        // After a reset, ten pushes, the first 0.5: slot 0 is next to be overwritten, and lag 0 reads it.
        bars.reset();
        for (int i = 0; i < 10; ++i)
            bars.push(i == 0 ? 0.5f : 0.0f, 1.0 + i * 0.01);
        expect(1.1, {0.18f * 0.5f * 0.85f, 0, 0, 0.38f * 0.5f * 0.95f, 0, 0});
    }
};

QTEST_GUILESS_MAIN(TestAudioEngine)
#include "tst_audioengine.moc"
