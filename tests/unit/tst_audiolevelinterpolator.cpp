// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/AudioLevelInterpolator.h"

#include <QTest>

#include <cmath>
#include <vector>

class TestAudioLevelInterpolator : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void rms_data()
    {
        QTest::addColumn<QString>("signal");
        QTest::addColumn<float>("expected");

        QTest::newRow("silence") << "silence" << 0.0f;
        QTest::newRow("full-scale square") << "square" << 1.0f;
        QTest::newRow("square at 0.125 reaches 1") << "square0.125" << 1.0f;
        QTest::newRow("quiet sine") << "sine0.1" << float(0.1 / std::sqrt(2.0) * 8.0);
        QTest::newRow("no frames") << "empty" << 0.0f;
    }

    void rms()
    {
        QFETCH(QString, signal);
        QFETCH(float, expected);
        std::vector<float> s(signal == u"empty" ? 0 : 1024);
        for (std::size_t i = 0; i < s.size(); ++i) {
            const float sign = (i / 12) % 2 ? -1.0f : 1.0f;
            if (signal == u"square")
                s[i] = sign;
            else if (signal == u"square0.125")
                s[i] = 0.125f * sign;
            else if (signal == u"sine0.1")
                s[i] = 0.1f * float(std::sin(2 * M_PI * double(i) / 64.0));
        }
        QVERIFY(qAbs(AudioLevelInterpolator::level(s.data(), qsizetype(s.size())) - expected) < 1e-4f);
    }

    // Bars 0 and 3 read the oldest of ten levels (lag 0), bars 1 and 4 the newest (lag 1), bar 2 lag 2,
    // bar 5 lag 3; a bar moves by its smoothing factor towards level × its frequency weight.
    void lagsAndSmoothing_data()
    {
        QTest::addColumn<int>("bar");
        QTest::addColumn<float>("expected");

        // After a reset and one push of 1.0 at slot 0, historyIndex is 1.
        QTest::newRow("bar 0, lag 0 reads slot 1 (empty)") << 0 << 0.0f;
        QTest::newRow("bar 1, lag 1 reads slot 0") << 1 << 0.24f * 1.00f;
        QTest::newRow("bar 2, lag 2 reads slot 9 (empty)") << 2 << 0.0f;
        QTest::newRow("bar 3, lag 0") << 3 << 0.0f;
        QTest::newRow("bar 4, lag 1") << 4 << 0.30f * 1.00f;
        QTest::newRow("bar 5, lag 3 reads slot 8 (empty)") << 5 << 0.0f;
    }

    void lagsAndSmoothing()
    {
        QFETCH(int, bar);
        QFETCH(float, expected);
        AudioLevelInterpolator interpolator;
        interpolator.push(1.0f, 10.0);
        QCOMPARE(interpolator.barLevel(bar, true, 10.05), expected);
    }

    void oldestLevelReachesLagZero()
    {
        AudioLevelInterpolator interpolator;
        for (int i = 0; i < 10; ++i)
            interpolator.push(i == 0 ? 0.5f : 0.0f, 1.0 + i * 0.01);
        // Slot 0 (the oldest) is next to be overwritten: lag 0 reads it.
        QCOMPARE(interpolator.barLevel(0, true, 1.1), 0.18f * 0.5f * 0.85f);
        QCOMPARE(interpolator.barLevel(1, true, 1.1), 0.0f);
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
                const float level = interpolator.barLevel(bar, true, t);
                QVERIFY2(level >= 0.2f - 1e-6f && level <= 0.35f + 1e-6f, qPrintable(QString::number(level)));
                QCOMPARE(level, float((std::sin(0.4 * bar + 2.4 * M_PI * t) + 1) * 0.5 * 0.15 + 0.2));
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
