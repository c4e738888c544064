// SPDX-License-Identifier: GPL-3.0-or-later
// What playback adds to the time to first audio. A narration starts playing once 28,800 bytes (three
// 9,600-byte chunks, the first whole chunks to cover the 0.5 s prebuffer) have arrived; this measures from
// the arrival of the byte that completes them to the first non-silent sample at the sound server.
// SpeechManager narrates through PulseAudioSink, in own-key mode, from the dev server (a 440 Hz tone streamed
// at real-time pace), to a PulseAudio daemon of the benchmark's own whose null-sink monitor is recorded in
// this process.
//
// Arrival: the GUI thread's receipt of the bytes (QNetworkReply::readyRead, observed before the narration
// controller reads them). First sound: the first sample above 0.01 at the monitor, placed on the same
// clock by the recording stream's reported latency (for a monitor, PulseAudio accounts the sink's own
// latency in it, so this is when the sink plays the sample).
//
//     build-nbench/bench/first_audio_bench [runs, default 20]
#include "BenchNarration.h"
#include "DevServer.h"
#include "MonitorRecorder.h"
#include "PulseServer.h"

#include "platform/pulse/PulseAudioSink.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>

#include <pulse/pulseaudio.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <optional>
#include <vector>

namespace {

using namespace bench;
constexpr qint64 kStartBytes = 3 * SpeechManager::kAudioChunkSize;
constexpr double kGoalMs = 60;

// Notes when the byte that completes the first kStartBytes of a response reaches the GUI thread.
class WatchedNetwork final : public QNetworkAccessManager
{
public:
    std::optional<Clock::time_point> startBytesArrived;

protected:
    QNetworkReply *createRequest(Operation op, const QNetworkRequest &request, QIODevice *data) override
    {
        QNetworkReply *reply = QNetworkAccessManager::createRequest(op, request, data);
        startBytesArrived.reset();
        // Connected before the speech stream's own slot, which reads everything available: this one runs
        // first for every piece and sees only the new bytes.
        connect(reply, &QNetworkReply::readyRead, this, [this, reply, received = qint64(0)]() mutable {
            const Clock::time_point now = Clock::now();
            const qint64 before = received;
            received += reply->bytesAvailable();
            if (before < kStartBytes && received >= kStartBytes)
                startBytesArrived = now;
        });
        return reply;
    }
};

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 20;

    QTemporaryDir dir;
    PulseServer pulse(dir.path());
    if (!pulse.start()) {
        std::fprintf(stderr, "cannot start pulseaudio (see %s/daemon.log)\n", qPrintable(dir.path()));
        return 1;
    }
    PulseServerEnvironment environment(pulse.address());
    MonitorRecorder monitor;
    if (!monitor.start(pulse.address())) {
        std::fprintf(stderr, "cannot record t.monitor\n");
        return 1;
    }
    // The null sink keeps its long idle blocks for up to 2 s before the recorder's latency applies.
    QThread::msleep(2200);

    DevServer server;
    if (!server.start({QStringLiteral("--synth"), QStringLiteral("sine")})) {
        std::fprintf(stderr, "%s\n", qPrintable(server.errorString()));
        return 1;
    }
    WatchedNetwork network;
    BenchNarration narration(std::make_unique<PulseAudioSink>(), server.url(), &network);
    SpeechManager &speech = narration.speech();
    const QString text = benchText(12); // about 4 s

    std::vector<double> overhead, correction;
    for (int run = 0; run < runs; ++run) {
        monitor.arm();
        narration.speak(text);
        const bool heard = waitFor([&] { return monitor.heard(); }, 10000);
        if (!heard || !network.startBytesArrived) {
            std::fprintf(stderr, "run %d: %s\n", run + 1,
                         speech.currentError() ? qPrintable(speech.currentErrorDescription())
                                               : "no sound within 10 s");
            return 1;
        }
        overhead.push_back(msBetween(*network.startBytesArrived, monitor.heardAt()));
        correction.push_back(monitor.correctionMs());
        speech.stop();
        waitFor([] { return false; }, 300); // what the sink still held dies away
    }

    const auto [least, most] = std::minmax_element(overhead.begin(), overhead.end());
    std::printf("First-audio overhead: arrival of byte %lld to the first sound at the sink, %d runs\n",
                static_cast<long long>(kStartBytes), runs);
    std::printf("  median %7.2f ms   min %7.2f ms   max %7.2f ms   (recording correction, median %+.2f ms)\n",
                median(overhead), *least, *most, median(correction));
    std::printf("  median / goal of %.0f ms: %.3f\n", kGoalMs, median(overhead) / kGoalMs);
    return 0;
}
