// SPDX-License-Identifier: GPL-3.0-or-later
// Memory of a long narration, and the GUI thread's work for a seek in a very long one. SpeechManager
// narrates in own-key mode from the dev server (a tone as long as the speech, sent as fast as possible)
// into the null sink, whose clock this program moves, so that ten minutes take seconds.
//   1. Resident memory gained over a 10-minute narration, against its PCM bytes.
//   2. A seek near the start of a one-hour narration, everything received: seekToFrame() plus the work
//      when its debounce fires (measured from the timer event to seekPerformed()).
//
//     build-nbench/bench/narration_memory_bench [minutes, default 10] [seek narration minutes, default 60]
#include "BenchNarration.h"
#include "BenchTiming.h"
#include "DevServer.h"

#include "platform/null/NullAudioSink.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <vector>

namespace {

using namespace bench;
constexpr std::size_t kStepFrames = 2400; // 100 ms of device time per step
constexpr double kMemoryGoal = 1.3;
constexpr double kSeekGoalMs = 50;

// Notes when the seek debounce (the only 50 ms single-shot timer here) fires.
class DebounceWatch final : public QObject
{
public:
    Clock::time_point firedAt;

protected:
    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (event->type() == QEvent::Timer) {
            const auto *timer = qobject_cast<QTimer *>(watched);
            if (timer && timer->isSingleShot() && timer->interval() == 50)
                firedAt = Clock::now();
        }
        return false;
    }
};

// Runs an event loop, as the application's own (deferred deletions included), until `done`, calling
// `step` on every turn.
void runUntil(const std::function<bool()> &done, const std::function<void()> &step = {})
{
    QEventLoop loop;
    QTimer turn;
    QObject::connect(&turn, &QTimer::timeout, [&] {
        if (step)
            step();
        if (done())
            loop.quit();
    });
    turn.start(0);
    loop.exec();
}

// Narrates `text` to its end, moving the null sink's clock while there is audio ahead of it (as a device
// would play it while the stream arrives), and returns its PCM bytes. `sample` runs on every turn.
qint64 narrate(BenchNarration &narration, NullAudioSink &sink, const QString &text,
               const std::function<void()> &sample = {})
{
    SpeechManager &speech = narration.speech();
    bool ended = false;
    const QMetaObject::Connection connection =
        QObject::connect(&speech, &SpeechManager::playbackEnded, [&] { ended = true; });
    narration.speak(text);
    runUntil([&] { return ended || speech.currentError(); },
             [&] {
                 const qint64 ahead = speech.accumulatedByteCount() / 2 - speech.currentPlaybackFrame();
                 if (speech.isPlaying() && (narration.streamEnded() || ahead > qint64(4 * kStepFrames)))
                     sink.advance(kStepFrames);
                 if (sample)
                     sample();
             });
    QObject::disconnect(connection);
    if (speech.currentError()) {
        std::fprintf(stderr, "narration failed: %s\n", qPrintable(speech.currentErrorDescription()));
        std::exit(1);
    }
    return speech.accumulatedByteCount();
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const int minutes = argc > 1 ? std::max(1, std::atoi(argv[1])) : 10;
    const int seekMinutes = argc > 2 ? std::max(1, std::atoi(argv[2])) : 60;
    // How much faster than real time the server streams; 0 sends everything at once.
    const QString pace = argc > 3 ? QString::fromLocal8Bit(argv[3]) : QStringLiteral("20");

    DevServer server;
    if (!server.start({QStringLiteral("--synth"), QStringLiteral("sine"), QStringLiteral("--pace"), pace})) {
        std::fprintf(stderr, "%s\n", qPrintable(server.errorString()));
        return 1;
    }
    auto *sink = new NullAudioSink(NullAudioSink::Clock::Manual);
    BenchNarration narration{std::unique_ptr<AudioSink>(sink), server.url()};
    SpeechManager &speech = narration.speech();

    // A short narration first: it sets up everything a narration needs once (network, engine) and tells
    // how many words make a minute.
    const int calibrationWords = 240;
    const qint64 calibration = narrate(narration, *sink, benchText(calibrationWords));
    const double wordsPerMinute = calibrationWords / (double(calibration) / 48000 / 60);
    speech.stop();

    // 1. Memory over a long narration.
    const long before = residentKiB();
    long peak = before;
    const double pcm = double(narrate(narration, *sink, benchText(int(wordsPerMinute * minutes * 1.01)),
                                      [&] { peak = std::max(peak, residentKiB()); }));
    const long after = residentKiB();
    const double held = double(after - before) * 1024, gained = double(peak - before) * 1024;
    std::printf("Memory over a %.1f-minute narration (%.1f MB of PCM):\n", pcm / 48000 / 60, pcm / 1e6);
    std::printf("  resident growth at its end %8.1f MB   growth / PCM %.3f   / goal of %.1f: %.3f\n",
                held / 1e6, held / pcm, kMemoryGoal, held / pcm / kMemoryGoal);
    std::printf("  peak growth during it      %8.1f MB   growth / PCM %.3f   / goal of %.1f: %.3f\n",
                gained / 1e6, gained / pcm, kMemoryGoal, gained / pcm / kMemoryGoal);
    speech.stop();

    // 2. A seek near the start of a very long narration, all of it received, playing at about 5 s.
    narration.speak(benchText(int(wordsPerMinute * seekMinutes * 1.01)));
    runUntil([&] { return narration.streamEnded() || speech.currentError(); });
    int steps = 0;
    runUntil([&] { return steps == 50 || !speech.isPlaying(); },
             [&] {
                 sink->advance(kStepFrames);
                 ++steps;
             });
    if (!speech.isPlaying()) {
        std::fprintf(stderr, "the long narration is not playing: %s\n",
                     qPrintable(speech.currentErrorDescription()));
        return 1;
    }
    DebounceWatch watch;
    app.installEventFilter(&watch);
    std::vector<double> seekMs;
    for (int i = 0; i < 11; ++i) {
        bool performed = false;
        Clock::time_point performedAt;
        const QMetaObject::Connection connection =
            QObject::connect(&speech, &SpeechManager::seekPerformed, [&] {
                performedAt = Clock::now();
                performed = true;
            });
        const Clock::time_point t0 = Clock::now();
        speech.seekToFrame(qint64(SpeechManager::kSampleRateHz) * (2 + i % 5));
        const Clock::time_point t1 = Clock::now();
        watch.firedAt = {};
        runUntil([&] { return performed; });
        QObject::disconnect(connection);
        if (watch.firedAt < t1) {
            std::fprintf(stderr, "the seek debounce was not seen firing\n");
            return 1;
        }
        seekMs.push_back(msBetween(t0, t1) + msBetween(watch.firedAt, performedAt));
        sink->advance(kStepFrames);
    }
    const auto [least, most] = std::minmax_element(seekMs.begin(), seekMs.end());
    std::printf("Seek near the start of a %.1f-minute narration (%.1f MB of PCM appended), %zu seeks:\n",
                double(speech.accumulatedByteCount()) / 48000 / 60,
                double(speech.accumulatedByteCount()) / 1e6, seekMs.size());
    std::printf(
        "  GUI-thread work median %7.2f ms   min %7.2f ms   max %7.2f ms   median / goal of %.0f ms: %.3f\n",
        median(seekMs), *least, *most, kSeekGoalMs, median(seekMs) / kSeekGoalMs);
    return 0;
}
