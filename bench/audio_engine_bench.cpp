// SPDX-License-Identifier: GPL-3.0-or-later
// CPU cost of the audio engine against SoundTouch alone on the same audio, and the GUI thread's cost of
// scheduling an hour of audio. Build with -DQUILLVOX_BUILD_BENCH=ON (a release build) and run:
//     build/bench/audio_engine_bench [seconds of audio, default 60] [repetitions, default 5]
#include "platform/null/NullAudioSink.h"
#include "speech/AudioEngine.h"

#include <QCoreApplication>
#include <QtEndian>

#include <SoundTouch.h>

#include <time.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <numbers>
#include <random>
#include <vector>

namespace {

constexpr int kRate = AudioEngine::kSampleRateHz;
constexpr qsizetype kChunkBytes = 9600;
constexpr std::size_t kDeviceRequest = 480; // 20 ms, a typical PulseAudio request at our latency

double threadCpuSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

double wallSeconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

long residentKiB()
{
    std::ifstream statm("/proc/self/statm");
    long pages = 0, resident = 0;
    statm >> pages >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// Voiced syllables: a wandering fundamental with harmonics, four syllables a second, a little breath.
QByteArray speechLike(qint64 frames)
{
    std::mt19937 random(7);
    std::normal_distribution<double> noise(0.0, 0.02);
    QByteArray bytes(frames * 2, Qt::Uninitialized);
    double phase = 0;
    for (qint64 i = 0; i < frames; ++i) {
        const double t = double(i) / kRate;
        const double f0 = 140 + 30 * std::sin(2 * std::numbers::pi * 0.7 * t);
        phase += 2 * std::numbers::pi * f0 / kRate;
        const double envelope = std::max(0.0, std::sin(2 * std::numbers::pi * 4 * t));
        double v = 0;
        for (int h = 1; h <= 6; ++h)
            v += std::sin(h * phase) / h;
        v = 0.25 * envelope * v + noise(random);
        qToLittleEndian<qint16>(static_cast<qint16>(std::clamp(v, -1.0, 0.999) * 32767),
                                bytes.data() + 2 * i);
    }
    return bytes;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

struct EngineRun
{
    double renderCpu = 0;  // the render side: everything the sink's thread would spend
    double deliverCpu = 0; // the GUI thread draining completions
    double worstRequest = 0;
    qint64 outputFrames = 0;
};

EngineRun runEngine(const QByteArray &audio, float rate)
{
    auto *sink = new NullAudioSink;
    AudioEngine engine{std::unique_ptr<AudioSink>(sink)};
    qsizetype completed = 0;
    QObject::connect(&engine, &AudioEngine::bufferCompleted, [&](quint64) { ++completed; });
    engine.start();
    engine.setRate(rate);
    engine.setTapEnabled(true);
    qsizetype count = 0;
    for (qsizetype offset = 0; offset < audio.size(); offset += kChunkBytes, ++count)
        engine.scheduleBuffer(audio, offset, std::min(kChunkBytes, audio.size() - offset), quint64(count));
    engine.markEndOfInput();
    engine.play();
    EngineRun run;
    while (completed < count) {
        const double before = threadCpuSeconds();
        sink->advance(kDeviceRequest);
        const double rendered = threadCpuSeconds();
        engine.deliverPending();
        const double delivered = threadCpuSeconds();
        run.renderCpu += rendered - before;
        run.deliverCpu += delivered - rendered;
        run.worstRequest = std::max(run.worstRequest, rendered - before);
        run.outputFrames += qint64(kDeviceRequest);
    }
    return run;
}

double runSoundTouch(const QByteArray &audio, float rate)
{
    soundtouch::SoundTouch stretcher;
    stretcher.setSampleRate(kRate);
    stretcher.setChannels(1);
    stretcher.setSetting(SETTING_USE_AA_FILTER, 0);
    stretcher.setTempo(rate);
    const qint64 frames = audio.size() / 2;
    std::vector<float> in(kDeviceRequest);
    std::vector<float> out(4 * kDeviceRequest);
    const double before = threadCpuSeconds();
    for (qint64 at = 0; at < frames; at += qint64(kDeviceRequest)) {
        const qint64 n = std::min<qint64>(qint64(kDeviceRequest), frames - at);
        for (qint64 i = 0; i < n; ++i)
            in[std::size_t(i)] =
                float(qFromLittleEndian<qint16>(audio.constData() + 2 * (at + i))) / 32768.0f;
        stretcher.putSamples(in.data(), uint(n));
        while (stretcher.receiveSamples(out.data(), uint(out.size())) > 0) {
        }
    }
    stretcher.flush();
    while (stretcher.receiveSamples(out.data(), uint(out.size())) > 0) {
    }
    return threadCpuSeconds() - before;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const int seconds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 60;
    const int repetitions = argc > 2 ? std::max(1, std::atoi(argv[2])) : 5;
    const QByteArray audio = speechLike(qint64(seconds) * kRate);

    std::printf("Render cost, %d s of speech-like audio, %zu-frame device requests, median of %d runs\n",
                seconds, kDeviceRequest, repetitions);
    std::printf("%-6s %14s %14s %16s %8s %14s %14s\n", "rate", "engine us/s", "ST alone us/s", "engine/ST",
                "", "deliver us/s", "worst request");
    for (float rate : {1.0f, 1.25f, 2.0f, 0.5f}) {
        std::vector<double> engineCpu, deliverCpu, worst, stCpu;
        for (int i = 0; i < repetitions; ++i) {
            const EngineRun run = runEngine(audio, rate);
            engineCpu.push_back(run.renderCpu);
            deliverCpu.push_back(run.deliverCpu);
            worst.push_back(run.worstRequest);
            stCpu.push_back(runSoundTouch(audio, rate));
        }
        const double e = median(engineCpu), s = median(stCpu);
        std::printf("%-6.2f %14.1f %14.1f %16.3f %8s %14.1f %11.1f us\n", double(rate), e / seconds * 1e6,
                    s / seconds * 1e6, e / s, rate == 1.0f ? "(direct)" : "",
                    median(deliverCpu) / seconds * 1e6, median(worst) * 1e6);
    }

    // A seek near the start of an hour: the rest of it scheduled at once, on the GUI thread.
    const qint64 hourBytes = qint64(3600) * kRate * 2;
    QByteArray hour(hourBytes, '\0');
    std::vector<double> scheduleWall, stopWall;
    long metadataKiB = 0;
    for (int i = 0; i < repetitions; ++i) {
        AudioEngine engine{std::make_unique<NullAudioSink>()};
        engine.start();
        const long before = residentKiB();
        const double t0 = wallSeconds();
        quint64 token = 0;
        for (qsizetype offset = 0; offset < hour.size(); offset += kChunkBytes)
            engine.scheduleBuffer(hour, offset, std::min(kChunkBytes, hour.size() - offset), ++token);
        const double t1 = wallSeconds();
        metadataKiB = std::max(metadataKiB, residentKiB() - before);
        engine.stop();
        const double t2 = wallSeconds();
        scheduleWall.push_back(t1 - t0);
        stopWall.push_back(t2 - t1);
    }
    std::printf("\nScheduling one hour (%lld bytes) in %lld-byte buffers (%lld calls), median of %d:\n",
                static_cast<long long>(hourBytes), static_cast<long long>(kChunkBytes),
                static_cast<long long>(hourBytes / kChunkBytes), repetitions);
    std::printf("  scheduleBuffer burst %8.2f ms (goal < 50 ms)\n", median(scheduleWall) * 1e3);
    std::printf("  stop() dropping it   %8.2f ms\n", median(stopWall) * 1e3);
    std::printf("  queue bookkeeping    %8ld KiB resident (the audio itself is shared, not copied)\n",
                metadataKiB);
    return 0;
}
