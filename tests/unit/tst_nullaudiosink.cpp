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

using Pulls = QList<std::pair<int, int>>; // (frames, device delay before them)

} // namespace

class TestNullAudioSink : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Steps: "open", "refused" (an open that fails), "close", "on"/"off", "discard", and "F/D": F frames of
    // time pass, after which the device holds D frames unheard.
    void manualClock_data()
    {
        QTest::addColumn<QStringList>("steps");
        QTest::addColumn<Pulls>("pulls");

        QTest::newRow("no latency") << QStringList{"open", "on", "100/0", "50/0"}
                                    << Pulls{{100, 0}, {0, 0}, {50, 0}, {0, 0}};
        QTest::newRow("latency carried to the next pull")
            << QStringList{"open", "on", "100/30", "50/80", "10/0"}
            << Pulls{{100, 0}, {0, 30}, {50, 30}, {0, 80}, {10, 80}, {0, 0}};
        QTest::newRow("discard empties the device") << QStringList{"open", "on", "100/60", "discard", "50/20"}
                                                    << Pulls{{100, 0}, {0, 60}, {50, 0}, {0, 20}};
        QTest::newRow("opens paused, and paused keeps what it holds")
            << QStringList{"open", "64/0", "on", "100/40", "off", "100/0", "on", "10/0"}
            << Pulls{{100, 0}, {0, 40}, {10, 40}, {0, 0}};
        QTest::newRow("refused or closed, nothing plays")
            << QStringList{"refused", "on", "10/0", "open", "close", "on", "10/0"} << Pulls{};
    }

    void manualClock()
    {
        QFETCH(QStringList, steps);
        QFETCH(Pulls, pulls);

        RecordingSource source;
        NullAudioSink sink;
        bool open = false, active = false;
        std::size_t pulledFrames = 0;
        for (const QString &step : std::as_const(steps)) {
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
                active = step == u"on";
                sink.setActive(active);
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
            QCOMPARE(sink.isOpen(), open);
            QCOMPARE(sink.isActive(), active);
        }
        std::vector<RecordingSource::Pull> expected;
        for (const auto &[frames, delay] : pulls)
            expected.push_back({std::size_t(frames), delay});
        QVERIFY(source.pulls() == expected);
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
