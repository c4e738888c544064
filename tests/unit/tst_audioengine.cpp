// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/null/NullAudioSink.h"
#include "speech/AudioEngine.h"

#include <QRegularExpression>
#include <QTest>
#include <QTimer>
#include <QtEndian>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <new>
#include <numbers>
#include <vector>

// Counts heap traffic on the thread that sets the flag, to hold the render path to allocating nothing.
namespace {
thread_local bool t_countAllocations = false;
std::atomic<int> g_allocations{0};
std::atomic<int> g_frees{0};

void *countedAllocate(std::size_t size)
{
    if (t_countAllocations)
        ++g_allocations;
    if (void *p = std::malloc(size ? size : 1))
        return p;
    throw std::bad_alloc();
}

void countedFree(void *p) noexcept
{
    if (t_countAllocations && p)
        ++g_frees;
    std::free(p);
}
} // namespace

void *operator new(std::size_t size)
{
    return countedAllocate(size);
}
void *operator new[](std::size_t size)
{
    return countedAllocate(size);
}
void *operator new(std::size_t size, const std::nothrow_t &) noexcept
{
    try {
        return countedAllocate(size);
    } catch (...) {
        return nullptr;
    }
}
void *operator new[](std::size_t size, const std::nothrow_t &) noexcept
{
    try {
        return countedAllocate(size);
    } catch (...) {
        return nullptr;
    }
}
void operator delete(void *p) noexcept
{
    countedFree(p);
}
void operator delete[](void *p) noexcept
{
    countedFree(p);
}
void operator delete(void *p, std::size_t) noexcept
{
    countedFree(p);
}
void operator delete[](void *p, std::size_t) noexcept
{
    countedFree(p);
}

namespace {

constexpr qint64 kRate = AudioEngine::kSampleRateHz;
constexpr qsizetype kChunkBytes = 9600;

QByteArray pcm(qint64 frames, const std::function<double(qint64)> &sample)
{
    QByteArray bytes(frames * 2, Qt::Uninitialized);
    for (qint64 i = 0; i < frames; ++i) {
        const double v = std::clamp(sample(i), -1.0, 32767.0 / 32768.0);
        qToLittleEndian<qint16>(static_cast<qint16>(std::lround(v * 32768.0)), bytes.data() + 2 * i);
    }
    return bytes;
}

QByteArray sine(qint64 frames, double hz, double amplitude)
{
    return pcm(frames, [=](qint64 i) { return amplitude * std::sin(2 * std::numbers::pi * hz * i / kRate); });
}

QByteArray square(qint64 frames, double amplitude, qint64 halfPeriod = 12)
{
    return pcm(frames, [=](qint64 i) { return (i / halfPeriod) % 2 ? -amplitude : amplitude; });
}

// A different value on every frame of a 30,000-frame cycle, so a test can tell which frame it hears.
qint16 rampValue(qint64 frame)
{
    return static_cast<qint16>((frame * 7) % 30000 - 15000);
}

QByteArray ramp(qint64 frames)
{
    QByteArray bytes(frames * 2, Qt::Uninitialized);
    for (qint64 i = 0; i < frames; ++i)
        qToLittleEndian<qint16>(rampValue(i), bytes.data() + 2 * i);
    return bytes;
}

float rampSample(qint64 frame)
{
    return static_cast<float>(rampValue(frame)) / 32768.0f;
}

// Upward zero crossings per second over [from, to).
double frequency(const std::vector<float> &x, std::size_t from, std::size_t to)
{
    int crossings = 0;
    std::size_t first = 0, last = 0;
    for (std::size_t i = from + 1; i < to; ++i) {
        if (x[i - 1] < 0 && x[i] >= 0) {
            if (crossings == 0)
                first = i;
            last = i;
            ++crossings;
        }
    }
    if (crossings < 2)
        return 0;
    return (crossings - 1) * double(kRate) / double(last - first);
}

std::size_t lastAudible(const std::vector<float> &x)
{
    for (std::size_t i = x.size(); i > 0; --i)
        if (std::abs(x[i - 1]) > 1e-4f)
            return i;
    return 0;
}

struct AllocationScope
{
    AllocationScope() { t_countAllocations = true; }
    ~AllocationScope() { t_countAllocations = false; }
};

// An engine on a manual clock, with everything it emits collected.
class Harness
{
public:
    explicit Harness(NullAudioSink::Clock clock = NullAudioSink::Clock::Manual)
        : sink(new NullAudioSink(clock))
        , engine(std::unique_ptr<AudioSink>(sink))
    {
        QObject::connect(&engine, &AudioEngine::bufferCompleted, [this](quint64 t) { completed.append(t); });
        QObject::connect(&engine, &AudioEngine::levelMeasured, [this](float level, double ts) {
            levels.append({level, ts});
        });
        QObject::connect(&engine, &AudioEngine::failed, [this](const QString &r) { failures.append(r); });
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
        std::span<const float> pulled;
        if (countAllocations) {
            AllocationScope scope;
            pulled = sink->advance(frames, deviceDelay);
        } else {
            pulled = sink->advance(frames, deviceDelay);
        }
        output.insert(output.end(), pulled.begin(), pulled.end());
        engine.deliverPending();
    }

    // Advances in steps until `count` completions have arrived or `limit` frames have passed; returns the
    // frames advanced.
    qint64 playOut(qsizetype count, qint64 limit, std::size_t step = 480, qint64 deviceDelay = 0)
    {
        qint64 advanced = 0;
        while (completed.size() < count && advanced < limit) {
            advance(step, deviceDelay);
            advanced += qint64(step);
        }
        return advanced;
    }

    qint64 position() const { return engine.sampleTime().value_or(-1); }

    NullAudioSink *sink;
    AudioEngine engine;
    QList<quint64> completed;
    QList<std::pair<float, double>> levels;
    QStringList failures;
    std::vector<float> output;
    bool countAllocations = false;
};

QList<quint64> tokenRange(quint64 first, qsizetype count)
{
    QList<quint64> tokens;
    for (qsizetype i = 0; i < count; ++i)
        tokens.append(first + quint64(i));
    return tokens;
}

} // namespace

class TestAudioEngine : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void sampleTimeIsEmptyUntilPlayed()
    {
        Harness h;
        QVERIFY(!h.engine.sampleTime());
        QVERIFY(h.engine.start());
        h.schedule(ramp(4800));
        h.engine.prepare();
        QVERIFY(h.sink->isActive());
        h.advance(960);
        QVERIFY2(!h.engine.sampleTime(), "a prepared but idle engine has no position yet");
        QVERIFY(std::all_of(h.output.begin(), h.output.end(), [](float s) { return s == 0.0f; }));

        h.engine.play();
        h.advance(960);
        QCOMPARE(h.position(), 960);

        h.engine.stop();
        QVERIFY(!h.engine.sampleTime());
        QVERIFY(!h.sink->isActive());
        QCOMPARE(h.sink->discardCount(), 1);
    }

    void completionsWaitForTheLastFrame_data()
    {
        QTest::addColumn<QList<int>>("bufferFrames");
        QTest::addColumn<int>("step");
        QTest::addColumn<int>("deviceDelay");

        QTest::newRow("no device delay") << QList<int>{4800, 4800, 2400} << 100 << 0;
        QTest::newRow("delay of a request") << QList<int>{4800, 4800, 2400} << 160 << 480;
        QTest::newRow("delay longer than a buffer") << QList<int>{1000, 3000, 500} << 250 << 6000;
        QTest::newRow("uneven steps") << QList<int>{4800, 1, 4799} << 333 << 7;
        QTest::newRow("steps spanning buffers") << QList<int>{1000, 1000, 1000, 1000} << 2500 << 0;
        QTest::newRow("steps spanning buffers, delayed")
            << QList<int>{1000, 1000, 1000, 1000} << 2500 << 1700;
    }

    void completionsWaitForTheLastFrame()
    {
        QFETCH(QList<int>, bufferFrames);
        QFETCH(int, step);
        QFETCH(int, deviceDelay);

        Harness h;
        QVERIFY(h.engine.start());
        qint64 total = 0;
        QList<qint64> ends;
        for (int frames : bufferFrames) {
            total += frames;
            ends.append(total);
        }
        const QByteArray audio = ramp(total);
        qint64 offset = 0;
        for (qsizetype i = 0; i < bufferFrames.size(); ++i) {
            h.engine.scheduleBuffer(audio, offset * 2, bufferFrames[i] * 2, quint64(i + 1));
            offset += bufferFrames[i];
        }
        h.engine.markEndOfInput();
        h.engine.play();

        qint64 rendered = 0;
        while (h.completed.size() < bufferFrames.size() && rendered < total + deviceDelay + 4 * step) {
            h.advance(std::size_t(step), deviceDelay);
            rendered += step;
            const qint64 heard = std::clamp<qint64>(rendered - deviceDelay, 0, total);
            QList<quint64> expected;
            for (qsizetype i = 0; i < ends.size() && ends[i] <= heard; ++i)
                expected.append(quint64(i + 1));
            QCOMPARE(h.completed, expected);
            QCOMPARE(h.position(), heard);
        }
        QCOMPARE(h.completed.size(), bufferFrames.size());
        for (qint64 i = 0; i < total; ++i)
            QCOMPARE(h.output[std::size_t(i)], rampSample(i));
    }

    void stretchedPositionCountsNarrationFrames_data()
    {
        QTest::addColumn<float>("rate");
        QTest::addColumn<int>("deviceDelay");

        for (float rate : {0.5f, 1.25f, 2.0f}) {
            for (int delay : {0, 960}) {
                const QByteArray name = QByteArray::number(rate) + "x, delay " + QByteArray::number(delay);
                QTest::newRow(name.constData()) << rate << delay;
            }
        }
    }

    void stretchedPositionCountsNarrationFrames()
    {
        QFETCH(float, rate);
        QFETCH(int, deviceDelay);

        Harness h;
        QVERIFY(h.engine.start());
        h.engine.setRate(rate);
        h.schedule(sine(8 * kRate, 220, 0.4));
        h.engine.play();
        qint64 previous = 0;
        const auto step = [&] {
            h.advance(480, deviceDelay);
            QVERIFY2(h.position() >= previous, "the position never goes back");
            previous = h.position();
        };
        for (int i = 0; i < 50; ++i)
            step();
        const qint64 before = h.position();
        const qint64 outputFrames = 2 * kRate;
        for (qint64 done = 0; done < outputFrames; done += 480)
            step();
        const double moved = double(h.position() - before);
        const double expected = double(rate) * double(outputFrames);
        QVERIFY2(
            std::abs(moved - expected) <= 0.02 * expected,
            qPrintable(
                QStringLiteral("moved %1 narration frames, expected about %2").arg(moved).arg(expected)));
    }

    void pauseRendersSilenceAndKeepsPosition_data()
    {
        QTest::addColumn<float>("rate");
        QTest::newRow("direct") << 1.0f;
        QTest::newRow("stretched") << 2.0f;
    }

    void pauseRendersSilenceAndKeepsPosition()
    {
        QFETCH(float, rate);

        Harness h;
        QVERIFY(h.engine.start());
        h.engine.setRate(rate);
        const QList<quint64> tokens = h.schedule(ramp(6 * kRate));
        h.engine.play();
        for (int i = 0; i < 20; ++i)
            h.advance(480);
        const qint64 position = h.position();
        const QList<quint64> completedBefore = h.completed;
        QVERIFY(position > 0);

        h.engine.pause();
        QVERIFY(!h.engine.isPlaying());
        QVERIFY(!h.sink->isActive());
        h.output.clear();
        h.advance(4800);
        // A request starting while paused keeps the device running: the engine renders silence itself.
        h.engine.prepare();
        QVERIFY(h.sink->isActive());
        h.advance(4800);
        QVERIFY(std::all_of(h.output.begin(), h.output.end(), [](float s) { return s == 0.0f; }));
        QCOMPARE(h.position(), position);
        QCOMPARE(h.completed, completedBefore);

        h.engine.play();
        h.output.clear();
        h.advance(4800);
        QVERIFY(h.position() > position);
        if (rate == 1.0f) {
            for (qint64 i = 0; i < 4800; ++i)
                QCOMPARE(h.output[std::size_t(i)], rampSample(position + i));
        }
    }

    void endOfInputFlushesTheTail_data()
    {
        QTest::addColumn<float>("rate");
        QTest::addColumn<int>("deviceDelay");

        for (float rate : {0.5f, 1.0f, 1.25f, 2.0f}) {
            for (int delay : {0, 960}) {
                const QByteArray name = QByteArray::number(rate) + "x, delay " + QByteArray::number(delay);
                QTest::newRow(name.constData()) << rate << delay;
            }
        }
    }

    void endOfInputFlushesTheTail()
    {
        QFETCH(float, rate);
        QFETCH(int, deviceDelay);

        Harness h;
        QVERIFY(h.engine.start());
        h.engine.setRate(rate);
        const qint64 total = 2 * kRate + 1234;
        const QList<quint64> tokens = h.schedule(sine(total, 300, 0.4));
        h.engine.markEndOfInput();
        h.engine.play();
        const qint64 expectedOutput = std::llround(double(total) / rate);
        const qint64 advanced = h.playOut(tokens.size(), 2 * expectedOutput + kRate, 480, deviceDelay);

        QCOMPARE(h.completed, tokens);
        QCOMPARE(h.position(), total);
        const qint64 heardAfter = advanced - deviceDelay;
        // The step, and the stretcher's seek window of slack in the tail; no wait for a stalled stream.
        QVERIFY2(std::abs(heardAfter - expectedOutput) <= 480 + 1200,
                 qPrintable(QStringLiteral("everything was heard after %1 output frames, expected about %2")
                                .arg(heardAfter)
                                .arg(expectedOutput)));
    }

    void stretchingKeepsPitch_data()
    {
        QTest::addColumn<float>("rate");
        QTest::newRow("0.5x") << 0.5f;
        QTest::newRow("1.25x") << 1.25f;
        QTest::newRow("2x") << 2.0f;
    }

    void stretchingKeepsPitch()
    {
        QFETCH(float, rate);

        Harness h;
        QVERIFY(h.engine.start());
        h.engine.setRate(rate);
        const QList<quint64> tokens = h.schedule(sine(4 * kRate, 440, 0.5));
        h.engine.markEndOfInput();
        h.engine.play();
        h.playOut(tokens.size(), 10 * kRate);
        QCOMPARE(h.completed, tokens);

        const std::size_t end = lastAudible(h.output);
        QVERIFY(std::abs(double(end) - 4 * kRate / rate) <= 0.05 * 4 * kRate / rate);
        const double hz = frequency(h.output, 4800, end - 4800);
        QVERIFY2(std::abs(hz - 440) <= 4.4, qPrintable(QStringLiteral("%1 Hz").arg(hz)));
    }

    void rateChangesMidStreamAreSeamless()
    {
        Harness h;
        QVERIFY(h.engine.start());
        const qint64 total = 6 * kRate;
        const QList<quint64> tokens = h.schedule(sine(total, 440, 0.5));
        h.engine.play();
        qint64 previous = 0;
        const auto run = [&](float rate, qint64 frames) {
            h.engine.setRate(rate);
            for (qint64 done = 0; done < frames; done += 480) {
                h.advance(480);
                QVERIFY(h.position() >= previous);
                previous = h.position();
            }
        };
        run(1.0f, kRate);
        run(2.0f, kRate);
        run(1.0f, kRate / 2);
        run(0.5f, kRate);
        h.engine.setRate(1.25f);
        h.engine.markEndOfInput();
        h.playOut(tokens.size(), 10 * kRate);

        QCOMPARE(h.completed, tokens);
        QCOMPARE(h.position(), total);
        // A sample-to-sample step above the sine's own steepest slope (0.058) would be a click.
        const std::size_t end = lastAudible(h.output) - 2400;
        float worst = 0;
        std::size_t at = 0;
        for (std::size_t i = 1; i < end; ++i) {
            const float stepSize = std::abs(h.output[i] - h.output[i - 1]);
            if (stepSize > worst) {
                worst = stepSize;
                at = i;
            }
        }
        QVERIFY2(worst < 0.08f,
                 qPrintable(QStringLiteral("step of %1 at output frame %2").arg(worst).arg(at)));
    }

    void stalledStreamStillCompletes()
    {
        Harness h;
        QVERIFY(h.engine.start());
        h.engine.setRate(2.0f);
        QList<quint64> tokens = h.schedule(sine(kRate, 300, 0.4));
        h.engine.play();
        // No end mark: the stream has merely stalled, yet what was received must all be heard.
        h.playOut(tokens.size(), 2 * kRate);
        QCOMPARE(h.completed, tokens);
        QCOMPARE(h.position(), kRate);

        tokens += h.schedule(sine(kRate, 300, 0.4), kChunkBytes, tokens.last() + 1);
        h.engine.markEndOfInput();
        h.playOut(tokens.size(), 2 * kRate);
        QCOMPARE(h.completed, tokens);
        QCOMPARE(h.position(), 2 * kRate);
    }

    void stopDropsQueuedAudioAndCompletions_data()
    {
        QTest::addColumn<float>("rate");
        QTest::newRow("direct") << 1.0f;
        QTest::newRow("stretched") << 2.0f;
    }

    void stopDropsQueuedAudioAndCompletions()
    {
        QFETCH(float, rate);

        Harness h;
        QVERIFY(h.engine.start());
        h.engine.setRate(rate);
        h.schedule(sine(2 * kRate, 300, 0.4), 4800, 1);
        h.engine.play();
        h.playOut(1, kRate);
        QVERIFY(!h.completed.isEmpty());
        const QList<quint64> beforeStop = h.completed;
        // Rendered and reported, but not yet delivered when stop() comes.
        h.sink->advance(std::size_t(4800 / rate) + 4800);
        h.engine.stop();
        h.engine.deliverPending();
        QCOMPARE(h.completed, beforeStop);
        QVERIFY(!h.engine.isPlaying());

        const QByteArray next = ramp(3000);
        h.engine.scheduleBuffer(next, 0, next.size(), 100);
        h.engine.setRate(1.0f);
        h.engine.markEndOfInput();
        h.engine.play();
        h.output.clear();
        h.playOut(beforeStop.size() + 1, 2 * kRate, 500);
        QCOMPARE(h.completed, beforeStop + QList<quint64>{100});
        QCOMPARE(h.position(), 3000);
        // Nothing of the old narration is left in the stretcher: the new audio starts at once.
        for (qint64 i = 0; i < 3000; ++i)
            QCOMPARE(h.output[std::size_t(i)], rampSample(i));
    }

    void levels_data()
    {
        QTest::addColumn<QByteArray>("audio");
        QTest::addColumn<float>("level");

        const qint64 frames = 4 * AudioEngine::kTapFrames;
        QTest::newRow("silence") << QByteArray(frames * 2, '\0') << 0.0f;
        QTest::newRow("full-scale square") << square(frames, 1.0) << 1.0f;
        QTest::newRow("square at 0.125 reaches the top") << square(frames, 0.125) << 1.0f;
        QTest::newRow("square at 1/16") << square(frames, 0.0625) << 0.5f;
        // 375 Hz fits whole periods into 1,024 frames.
        QTest::newRow("sine at 0.1") << sine(frames, 375, 0.1) << float(0.1 / std::numbers::sqrt2 * 8);
    }

    void levels()
    {
        QFETCH(QByteArray, audio);
        QFETCH(float, level);

        Harness h;
        QVERIFY(h.engine.start());
        h.engine.setTapEnabled(true);
        h.schedule(audio);
        h.engine.play();
        const double before =
            std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
        h.advance(std::size_t(audio.size() / 2));
        QCOMPARE(h.levels.size(), 4);
        double previous = 0;
        for (const auto &[measured, timestamp] : std::as_const(h.levels)) {
            QVERIFY2(std::abs(measured - level) < 1e-3f, qPrintable(QString::number(measured)));
            QVERIFY(timestamp >= previous);
            QVERIFY2(std::abs(timestamp - before) < 60, "timestamps are steady-clock seconds");
            previous = timestamp;
        }
    }

    void levelsOnlyWhileTheTapIsOn()
    {
        Harness h;
        QVERIFY(h.engine.start());
        h.schedule(square(20 * AudioEngine::kTapFrames, 0.05));
        h.engine.play();
        h.advance(4 * AudioEngine::kTapFrames);
        QCOMPARE(h.levels.size(), 0);

        h.engine.setTapEnabled(true);
        h.advance(AudioEngine::kTapFrames / 2);
        h.advance(3 * AudioEngine::kTapFrames + AudioEngine::kTapFrames / 2);
        QCOMPARE(h.levels.size(), 4);

        // Measured but not yet delivered when the tap goes off: dropped as well.
        h.sink->advance(2 * AudioEngine::kTapFrames + 300);
        h.engine.setTapEnabled(false);
        h.advance(4 * AudioEngine::kTapFrames);
        QCOMPARE(h.levels.size(), 4);

        // A window starts afresh when the tap comes back.
        h.engine.setTapEnabled(true);
        h.advance(AudioEngine::kTapFrames - 1);
        QCOMPARE(h.levels.size(), 4);
        h.advance(1);
        QCOMPARE(h.levels.size(), 5);
    }

    void scheduledRanges_data()
    {
        QTest::addColumn<qsizetype>("storageFrames");
        QTest::addColumn<qsizetype>("offset");
        QTest::addColumn<qsizetype>("bytes");
        QTest::addColumn<qint64>("firstFrame");
        QTest::addColumn<qint64>("frames");

        QTest::newRow("odd byte count")
            << qsizetype(5000) << qsizetype(0) << qsizetype(9601) << qint64(0) << qint64(4800);
        QTest::newRow("slice inside the storage")
            << qsizetype(5000) << qsizetype(4800) << qsizetype(2000) << qint64(2400) << qint64(1000);
        QTest::newRow("a single byte")
            << qsizetype(100) << qsizetype(10) << qsizetype(1) << qint64(5) << qint64(0);
        QTest::newRow("range past the end is clamped")
            << qsizetype(5000) << qsizetype(9000) << qsizetype(2000) << qint64(4500) << qint64(500);
        QTest::newRow("negative offset is clamped")
            << qsizetype(5000) << qsizetype(-8) << qsizetype(100) << qint64(0) << qint64(50);
    }

    void scheduledRanges()
    {
        QFETCH(qsizetype, storageFrames);
        QFETCH(qsizetype, offset);
        QFETCH(qsizetype, bytes);
        QFETCH(qint64, firstFrame);
        QFETCH(qint64, frames);

        Harness h;
        QVERIFY(h.engine.start());
        const QByteArray storage = ramp(storageFrames);
        if (offset < 0 || offset + bytes > storage.size())
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression("scheduled range"));
        h.engine.scheduleBuffer(storage, offset, bytes, 7);
        h.engine.scheduleBuffer(QByteArray(200, '\0'), 0, 200, 8);
        h.engine.markEndOfInput();
        h.engine.play();
        h.advance(std::size_t(frames) + 100);
        QCOMPARE(h.completed, (QList<quint64>{7, 8}));
        QCOMPARE(h.position(), frames + 100);
        for (qint64 i = 0; i < frames; ++i)
            QCOMPARE(h.output[std::size_t(i)], rampSample(firstFrame + i));
    }

    void consumedStorageIsReleased()
    {
        Harness h;
        QVERIFY(h.engine.start());
        QList<QByteArray> pieces;
        for (int i = 0; i < 8; ++i)
            pieces.append(ramp(4800));
        for (int i = 0; i < pieces.size(); ++i)
            h.engine.scheduleBuffer(pieces[i], 0, pieces[i].size(), quint64(i));
        for (const QByteArray &piece : std::as_const(pieces))
            QVERIFY(!piece.isDetached());
        h.engine.play();
        h.advance(3 * 4800 + 100);
        QCOMPARE(h.completed.size(), 3);
        for (int i = 0; i < 3; ++i)
            QVERIFY2(pieces[i].isDetached(), "played buffers are let go");
        for (int i = 4; i < pieces.size(); ++i)
            QVERIFY(!pieces[i].isDetached());

        // A seek's burst: an hour in 9,600-byte slices of shared storage, dropped again by stop().
        const QByteArray hourPiece = ramp(4800);
        for (int i = 0; i < 18000; ++i)
            h.engine.scheduleBuffer(hourPiece, 0, hourPiece.size(), quint64(1000 + i));
        QVERIFY(!hourPiece.isDetached());
        h.engine.stop();
        QVERIFY(hourPiece.isDetached());
        for (const QByteArray &piece : std::as_const(pieces))
            QVERIFY(piece.isDetached());
    }

    void renderAllocatesNothing()
    {
        Harness h;
        QVERIFY(h.engine.start());
        // Small buffers, so that rendering walks across several blocks of the queue.
        const QList<quint64> tokens = h.schedule(sine(6 * kRate, 300, 0.4), 480);
        h.engine.setTapEnabled(true);
        h.engine.play();
        h.advance(4800);
        g_allocations = 0;
        g_frees = 0;
        h.countAllocations = true;
        const auto run = [&](int steps) {
            for (int i = 0; i < steps; ++i)
                h.advance(480, 240);
        };
        run(20);
        h.engine.setRate(2.0f);
        run(20);
        h.engine.pause();
        run(2);
        h.engine.prepare();
        run(5);
        h.engine.play();
        run(20);
        h.engine.setRate(0.5f);
        run(20);
        h.engine.setRate(1.0f);
        run(20);
        h.engine.setRate(4.0f);
        run(20);
        h.engine.markEndOfInput();
        h.playOut(tokens.size(), 10 * kRate, 480, 240);
        h.countAllocations = false;
        QCOMPARE(h.completed, tokens);
        QCOMPARE(g_allocations.load(), 0);
        QCOMPARE(g_frees.load(), 0);
    }

    void lostDeviceStopsTheEngine()
    {
        Harness h;
        QVERIFY(h.engine.start());
        const QList<quint64> tokens = h.schedule(ramp(kRate));
        h.engine.play();
        h.advance(4000);
        QCOMPARE(h.completed.size(), 0);
        // Heard before the loss, delivered after it.
        h.sink->advance(4800);

        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("audio output lost"));
        h.sink->simulateFailure(QStringLiteral("Connection terminated"));
        h.engine.deliverPending();
        QCOMPARE(h.failures, QStringList{QStringLiteral("Connection terminated")});
        QCOMPARE(h.completed, QList<quint64>{1});
        QVERIFY(!h.engine.isRunning());
        QVERIFY(!h.engine.isPlaying());
        QVERIFY(!h.sink->isOpen());
        QVERIFY(!h.engine.sampleTime());

        // A second report of the same loss changes nothing.
        h.sink->simulateFailure(QStringLiteral("again"));
        h.engine.deliverPending();
        QCOMPARE(h.failures.size(), 1);

        h.engine.prepare();
        QVERIFY(h.engine.isRunning());
        QCOMPARE(h.sink->openCount(), 2);
        QVERIFY(h.sink->isActive());
        h.schedule(ramp(1000), kChunkBytes, 50);
        h.engine.play();
        h.advance(1000);
        QCOMPARE(h.completed, (QList<quint64>{1, 50}));
    }

    void unavailableDeviceIsReported()
    {
        Harness h;
        h.sink->setOpenError(QStringLiteral("Connection refused"));
        QString error;
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("audio output unavailable"));
        QVERIFY(!h.engine.start(&error));
        QCOMPARE(error, QStringLiteral("Connection refused"));
        QVERIFY(!h.engine.isRunning());

        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("audio output unavailable"));
        h.engine.prepare();
        QVERIFY(h.failures.isEmpty());
        QTRY_COMPARE(h.failures, QStringList{QStringLiteral("Connection refused")});

        h.sink->setOpenError({});
        h.engine.prepare();
        QVERIFY(h.engine.isRunning());
        QVERIFY(h.sink->isActive());
    }

    void realTimeClockPlaysToTheEnd_data()
    {
        QTest::addColumn<float>("rate");
        QTest::newRow("1x") << 1.0f;
        QTest::newRow("2x") << 2.0f;
    }

    // The render side on a thread of its own while the GUI thread keeps scheduling, as a stream does.
    void realTimeClockPlaysToTheEnd()
    {
        QFETCH(float, rate);

        Harness h(NullAudioSink::Clock::RealTime);
        QVERIFY(h.engine.start());
        h.engine.setRate(rate);
        h.engine.setTapEnabled(true);
        const QByteArray audio = sine(kRate / 2, 300, 0.4);
        const qsizetype piece = 1200;
        qsizetype sent = 0;
        quint64 token = 0;
        const auto sendPiece = [&] {
            h.engine.scheduleBuffer(audio, sent, std::min(piece, audio.size() - sent), ++token);
            sent += piece;
            if (sent >= audio.size())
                h.engine.markEndOfInput();
        };
        for (int i = 0; i < 4; ++i)
            sendPiece();
        h.engine.play();
        QTimer feeder;
        QObject::connect(&feeder, &QTimer::timeout, [&] {
            if (sent < audio.size())
                sendPiece();
        });
        feeder.start(5);
        const qsizetype count = audio.size() / piece;
        QTRY_COMPARE_WITH_TIMEOUT(h.completed.size(), count, 10000);
        QCOMPARE(h.completed, tokenRange(1, count));
        QCOMPARE(h.position(), audio.size() / 2);
        QVERIFY(!h.levels.isEmpty());

        // Stopped while playing: nothing of it completes afterwards.
        feeder.stop();
        h.completed.clear();
        h.schedule(sine(kRate, 300, 0.4), kChunkBytes, 500);
        QTRY_VERIFY_WITH_TIMEOUT(h.position() > audio.size() / 2, 10000);
        h.engine.stop();
        const QList<quint64> beforeStop = h.completed;
        QTest::qWait(100);
        QCOMPARE(h.completed, beforeStop);
        QVERIFY(!h.engine.sampleTime());
    }
};

QTEST_GUILESS_MAIN(TestAudioEngine)
#include "tst_audioengine.moc"
