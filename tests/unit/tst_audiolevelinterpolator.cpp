// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/AudioLevelInterpolator.h"

#include <QTest>

#include <cmath>
#include <vector>

class TestAudioLevelInterpolator : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Eight times the RMS, at most 1; nothing for no frames.
    void level()
    {
        std::vector<float> square(1024), sine(1024);
        for (std::size_t i = 0; i < square.size(); ++i) {
            square[i] = (i / 12) % 2 ? -1.0f : 1.0f;
            sine[i] = 0.1f * float(std::sin(2 * M_PI * double(i) / 64.0));
        }
        QCOMPARE(AudioLevelInterpolator::level(square.data(), 1024), 1.0f);
        QVERIFY(qAbs(AudioLevelInterpolator::level(sine.data(), 1024) - float(0.1 / std::sqrt(2.0) * 8.0)) <
                1e-4f);
        QCOMPARE(AudioLevelInterpolator::level(square.data(), 0), 0.0f);
    }

    // Bars 0 and 3 read the oldest of ten levels (lag 0), bars 1 and 4 the newest (lag 1), bar 2 lag 2,
    // bar 5 lag 3; a bar moves by its smoothing factor towards level × its frequency weight.
    void lagsAndSmoothing()
    {
        const auto expectBars = [](AudioLevelInterpolator &interpolator, double time, QList<float> expected) {
            for (int bar = 0; bar < 6; ++bar)
                QCOMPARE(interpolator.barLevel(bar, true, time), expected[bar]);
        };
        // One push of 1.0 at slot 0: the next slot to write is 1, so only lag 1 finds it.
        AudioLevelInterpolator one;
        one.push(1.0f, 10.0);
        expectBars(one, 10.05, {0, 0.24f, 0, 0, 0.30f, 0});
        // Ten pushes, the first 0.5: slot 0 is next to be overwritten, and lag 0 reads it.
        AudioLevelInterpolator ten;
        for (int i = 0; i < 10; ++i)
            ten.push(i == 0 ? 0.5f : 0.0f, 1.0 + i * 0.01);
        expectBars(ten, 1.1, {0.18f * 0.5f * 0.85f, 0, 0, 0.38f * 0.5f * 0.95f, 0, 0});
    }

    void decaysPerCallWhenNotPlaying()
    {
        AudioLevelInterpolator interpolator;
        interpolator.push(1.0f, 0.0);
        for (int i = 0; i < 50; ++i)
            interpolator.barLevel(1, true, 0.01);
        const float level = interpolator.barLevel(1, true, 0.01);
        QVERIFY(level > 0.9f);
        QCOMPARE(interpolator.barLevel(1, false, 100.0), level - 0.85f * 2.5f * 0.016f);
        for (int i = 0; i < 100; ++i)
            interpolator.barLevel(1, false, 100.0);
        QCOMPARE(interpolator.barLevel(1, false, 100.0), 0.0f);
    }

    void staleLevelsGiveTheIdleWave()
    {
        AudioLevelInterpolator interpolator;
        interpolator.push(1.0f, 5.0);
        for (int bar = 0; bar < 6; ++bar) {
            for (double t = 5.15; t < 7; t += 0.05) {
                QCOMPARE(interpolator.barLevel(bar, true, t),
                         float((std::sin(0.4 * bar + 2.4 * M_PI * t) + 1) * 0.5 * 0.15 + 0.2));
            }
        }
        // Still fresh just before the threshold: smoothing towards the level, not the wave.
        AudioLevelInterpolator fresh;
        fresh.push(1.0f, 5.0);
        QCOMPARE(fresh.barLevel(1, true, 5.149), 0.24f);
    }

    void outOfRangeAndReset()
    {
        AudioLevelInterpolator interpolator;
        interpolator.push(1.0f, 1.0);
        QCOMPARE(interpolator.barLevel(-1, true, 1.0), 0.0f);
        QCOMPARE(interpolator.barLevel(6, true, 1.0), 0.0f);
        interpolator.barLevel(1, true, 1.0);
        interpolator.reset();
        for (int bar = 0; bar < 6; ++bar)
            QCOMPARE(interpolator.barLevel(bar, false, 1.0), 0.0f);
        // After a reset the first push feeds lag-1 bars before lag-0 bars.
        interpolator.push(1.0f, 2.0);
        QVERIFY(interpolator.barLevel(1, true, 2.0) > 0);
        QCOMPARE(interpolator.barLevel(0, true, 2.0), 0.0f);
    }
};

QTEST_APPLESS_MAIN(TestAudioLevelInterpolator)
#include "tst_audiolevelinterpolator.moc"
