// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/null/NullAudioSink.h"

#include <QTest>

#include <atomic>
#include <mutex>
#include <vector>

namespace {

// Records every pull and fills the frames with their running index.
class RecordingSource final : public AudioRenderSource
{
public:
    struct Pull
    {
        std::size_t frames;
        std::int64_t deviceDelayFrames;
        bool operator==(const Pull &) const = default;
    };

    void render(float *out, std::size_t frames, std::int64_t deviceDelayFrames) override
    {
        std::lock_guard lock(m_mutex);
        for (std::size_t i = 0; i < frames; ++i)
            out[i] = float(m_frames + i);
        m_frames += frames;
        m_pulls.push_back({frames, deviceDelayFrames});
        m_count = m_pulls.size();
    }

    std::vector<Pull> pulls() const
    {
        std::lock_guard lock(m_mutex);
        return m_pulls;
    }
    std::size_t count() const { return m_count; }

private:
    mutable std::mutex m_mutex;
    std::vector<Pull> m_pulls;
    std::size_t m_frames = 0;
    std::atomic<std::size_t> m_count{0};
};

using Steps = QList<std::pair<int, int>>; // (frames, device delay after them)
using Pulls = QList<std::pair<int, int>>; // (frames, device delay before them)

} // namespace

class TestNullAudioSink : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void manualClockReportsWhatIsUnheard_data()
    {
        QTest::addColumn<Steps>("steps");
        QTest::addColumn<bool>("discardBeforeLast");
        QTest::addColumn<Pulls>("pulls");

        QTest::newRow("no latency") << Steps{{100, 0}, {50, 0}} << false
                                    << Pulls{{100, 0}, {0, 0}, {50, 0}, {0, 0}};
        QTest::newRow("latency carried to the next pull")
            << Steps{{100, 30}, {50, 80}, {10, 0}} << false
            << Pulls{{100, 0}, {0, 30}, {50, 30}, {0, 80}, {10, 80}, {0, 0}};
        QTest::newRow("discard empties the device")
            << Steps{{100, 60}, {50, 20}} << true << Pulls{{100, 0}, {0, 60}, {50, 0}, {0, 20}};
    }

    void manualClockReportsWhatIsUnheard()
    {
        QFETCH(Steps, steps);
        QFETCH(bool, discardBeforeLast);
        QFETCH(Pulls, pulls);

        RecordingSource source;
        NullAudioSink sink;
        QVERIFY(sink.open(&source, nullptr));
        sink.setActive(true);
        std::size_t pulledFrames = 0;
        for (qsizetype i = 0; i < steps.size(); ++i) {
            if (discardBeforeLast && i == steps.size() - 1)
                sink.discardPending();
            const std::span<const float> out = sink.advance(std::size_t(steps[i].first), steps[i].second);
            QCOMPARE(out.size(), std::size_t(steps[i].first));
            for (std::size_t f = 0; f < out.size(); ++f)
                QCOMPARE(out[f], float(pulledFrames + f));
            pulledFrames += out.size();
        }
        std::vector<RecordingSource::Pull> expected;
        for (const auto &[frames, delay] : pulls)
            expected.push_back({std::size_t(frames), delay});
        QVERIFY(source.pulls() == expected);
    }

    void inactiveDeviceKeepsWhatItHolds()
    {
        RecordingSource source;
        NullAudioSink sink;
        QVERIFY(sink.open(&source, nullptr));
        QVERIFY2(!sink.isActive(), "a sink opens paused");
        const std::span<const float> silent = sink.advance(64, 0);
        QCOMPARE(silent.size(), std::size_t(64));
        QVERIFY(std::all_of(silent.begin(), silent.end(), [](float s) { return s == 0.0f; }));
        QCOMPARE(source.count(), std::size_t(0));

        sink.setActive(true);
        sink.advance(100, 40);
        sink.setActive(false);
        sink.advance(100, 0);
        sink.setActive(true);
        sink.advance(10, 0);
        const std::vector<RecordingSource::Pull> expected{{100, 0}, {0, 40}, {10, 40}, {0, 0}};
        QVERIFY(source.pulls() == expected);
    }

    void openAndClose()
    {
        RecordingSource source;
        NullAudioSink sink;
        sink.setOpenError(QStringLiteral("no device"));
        QString error;
        QVERIFY(!sink.open(&source, &error));
        QCOMPARE(error, QStringLiteral("no device"));
        QVERIFY(!sink.isOpen());
        QVERIFY(sink.advance(10).empty());

        sink.setOpenError({});
        QVERIFY(sink.open(&source, &error));
        QVERIFY(sink.isOpen());
        QCOMPARE(sink.openCount(), 1);
        sink.close();
        QVERIFY(!sink.isOpen());
        QVERIFY(!sink.isActive());
        sink.setActive(true);
        QVERIFY(sink.advance(10).empty());
        QCOMPARE(source.count(), std::size_t(0));
    }

    void failuresReachTheHandler()
    {
        NullAudioSink sink;
        QStringList reasons;
        sink.setFailureHandler([&](const QString &reason) { reasons.append(reason); });
        sink.simulateFailure(QStringLiteral("Connection terminated"));
        QCOMPARE(reasons, QStringList{QStringLiteral("Connection terminated")});
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
        for (const RecordingSource::Pull &pull : source.pulls())
            QVERIFY(pull == (RecordingSource::Pull{NullAudioSink::kRealTimeStepFrames, 0}));
    }
};

QTEST_GUILESS_MAIN(TestNullAudioSink)
#include "tst_nullaudiosink.moc"
