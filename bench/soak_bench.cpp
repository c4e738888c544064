// SPDX-License-Identifier: GPL-3.0-or-later
// Soak: hundreds of narrations in a row against the dev server, one in four with a fault on the server's
// side (a body cut off, an error status, a connection dropped before the head, a slow first byte), each
// interrupted once at a random moment by a seek, a speed change, a pause, a stop, a new narration or a
// replay from the history. Meant to run under the sanitizers: it counts hangs (a step that does not settle
// within its time limit), broken invariants of the published state, and the growth of resident memory
// from the tenth narration to the last (under a sanitizer, after its allocator gave back what it holds).
// The output is a null device whose own thread pulls audio at --pace times real time, as fast as the dev
// server streams it, so that the render side runs on its own thread as with a sound server.
//
// AddressSanitizer with LeakSanitizer, from the top of the tree. A small quarantine, or the freed memory
// it holds back, up to 256 MB by default, fills it during the first fifty narrations and hides any real
// growth of resident memory; and no allocation stacks kept, or the runtime's store of every distinct
// stack that allocated or freed grows with each new interleaving (about 7 MB over 500 narrations while
// the heap in use shrank). Errors are still caught and reported where they happen; to see where a
// reported block was allocated, run again without malloc_context_size:
//   cmake -S . -B build-soak-asan -G Ninja -DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_BUILD_TYPE=Debug
//         -DQUILLVOX_SANITIZE=ON -DQUILLVOX_BUILD_BENCH=ON -DQUILLVOX_BUILD_TESTS=OFF
//   cmake --build build-soak-asan -j2 --target soak_bench
//   ASAN_OPTIONS=detect_leaks=1:quarantine_size_mb=8:malloc_context_size=0
//         LSAN_OPTIONS=suppressions=$PWD/tests/sanitizers/lsan.supp
//         build-soak-asan/bench/soak_bench
// ThreadSanitizer (our libraries and the dev server instrumented; Qt and GLib are not). The script starts
// the dev servers itself, since a child started with QProcess breaks ThreadSanitizer's view of this
// process's locks, and passes their addresses with --servers:
//   cmake -S . -B build-soak-tsan -G Ninja -DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_BUILD_TYPE=Debug
//         -DQUILLVOX_TSAN=ON -DQUILLVOX_BUILD_BENCH=ON -DQUILLVOX_BUILD_TESTS=OFF
//   cmake --build build-soak-tsan -j2 --target soak_bench quillvox-devserver
//   bench/soak_tsan.sh build-soak-tsan
// Options: --seed N (default 20261124; the seed fixes every choice, not the thread interleavings),
// --narrations N (default 500), --pace X (default 20), --step-timeout-ms N (default 30000),
// --servers URL,URL,URL,URL,URL (dev servers already running: plain, cut off after 30001 bytes, error
// status, dropped before the head, 1500 ms to the first byte; all with --synth sine --pace X).
// The exit code is 0 only with no hang, no broken invariant, no sanitizer report from a dev server it
// started and resident memory after the last narration within 10% of that after the tenth.
#include "DevServer.h"

#include "account/KeychainHelper.h"
#include "core/UserDefaults.h"
#include "platform/null/MemorySecretStore.h"
#include "platform/null/NullAudioSink.h"
#include "records/HistoryManager.h"
#include "speech/AudioEngine.h"
#include "speech/NarrationServices.h"
#include "speech/OpenAIServer.h"
#include "speech/SpeechError.h"
#include "speech/SpeechManager.h"
#include "speech/VoiceStyle.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTemporaryDir>
#include <QTimer>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

// From the sanitizer runtimes' interfaces (GCC installs no header for them).
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QUILLVOX_SOAK_SANITIZED 1
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#endif
#ifdef __SANITIZE_ADDRESS__
extern "C" void __sanitizer_purge_allocator();
#endif
#ifdef __SANITIZE_THREAD__
extern "C" void __tsan_flush_memory();
#endif

namespace {

// Finished narrations go to a real history in a temporary folder, so that replays read real files.
class SoakRecords final : public NarrationRecords
{
public:
    explicit SoakRecords(HistoryManager &history)
        : m_history(history)
    {}
    bool ended = false;
    void addSession(const QString &text, const QString &voice, double durationSeconds,
                    const QByteArray &audioData) override
    {
        m_history.addSession(text, voice, durationSeconds, audioData);
        ended = true;
    }
    QString audioFile(const QUuid &id) const override { return m_history.audioFile(id); }
    void recordUsage(qint64) override {}

private:
    HistoryManager &m_history;
};

enum class Fault { None, CutOff, ErrorStatus, Dropped, SlowFirstByte };
constexpr std::array kFaultNames{"none", "cut-off body", "error status", "dropped connection",
                                 "slow first byte"};
enum class Interruption { Seek, Speed, Pause, Stop, NewNarration, HistoryReplay };
constexpr std::array kInterruptionNames{"seek", "speed change",  "pause",
                                        "stop", "new narration", "history replay"};
constexpr std::array kErrorStatuses{400, 401, 429, 500, 503};

struct Options
{
    quint64 seed = 20261124;
    int narrations = 500;
    QString pace = QStringLiteral("20");
    int stepTimeoutMs = 30000;
    // Dev servers started outside this process (plain, cut-off body, error status, dropped connection,
    // slow first byte, in this order); otherwise it starts its own.
    QStringList serverUrls;
};

std::optional<Options> parseOptions(const QStringList &arguments)
{
    Options options;
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QString &name = arguments[i];
        if (i + 1 >= arguments.size())
            return std::nullopt;
        const QString value = arguments[++i];
        bool ok = false;
        if (name == u"--seed")
            options.seed = value.toULongLong(&ok);
        else if (name == u"--narrations")
            options.narrations = value.toInt(&ok);
        else if (name == u"--pace") {
            options.pace = value;
            ok = value.toDouble() > 0;
        } else if (name == u"--step-timeout-ms")
            options.stepTimeoutMs = value.toInt(&ok);
        else if (name == u"--servers") {
            options.serverUrls = value.split(u',');
            ok = options.serverUrls.size() == 5;
        }
        if (!ok)
            return std::nullopt;
    }
    if (options.narrations < 11 || options.stepTimeoutMs <= 0)
        return std::nullopt;
    return options;
}

// A field of /proc/self/status in KiB (VmRSS: all resident memory; RssAnon: the heap and stacks; RssFile:
// mapped files, the libraries' code pages among them).
long statusKiB(const char *field)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray name = QByteArray(field) + ':';
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith(name))
            return line.mid(name.size()).trimmed().split(' ').value(0).toLong();
    }
    return -1;
}

long residentKiB()
{
    return statusKiB("VmRSS");
}

// Under a sanitizer, memory the program no longer uses stays resident: AddressSanitizer's quarantine and
// free lists, ThreadSanitizer's shadow of freed memory. The comparison has the runtime give it back
// first, so that it measures what the program still holds; the figures before are printed beside it,
// with the heap the sanitizer's allocator counts as in use.
struct ResidentReading
{
    long held = 0; // VmRSS as it stands
    long live = 0; // VmRSS once the sanitizer gave back what it holds (= held without one)
    long anon = 0; // RssAnon after that
    long file = 0; // RssFile
    long heap = 0; // KiB the sanitizer's allocator counts as in use (0 without one)
};

ResidentReading readResident()
{
    ResidentReading reading;
    reading.held = residentKiB();
#ifdef __SANITIZE_ADDRESS__
    __sanitizer_purge_allocator();
#endif
#ifdef __SANITIZE_THREAD__
    __tsan_flush_memory();
#endif
#ifdef QUILLVOX_SOAK_SANITIZED
    reading.heap = long(__sanitizer_get_current_allocated_bytes() / 1024);
#endif
    reading.live = residentKiB();
    reading.anon = statusKiB("RssAnon");
    reading.file = statusKiB("RssFile");
    return reading;
}

QString soakText(std::mt19937_64 &random, int words)
{
    static const QStringList vocabulary =
        QStringLiteral("the quick brown fox jumps over a lazy dog while seven readers listen to every "
                       "careful word spoken by a patient voice in the quiet evening light")
            .split(u' ');
    QString text;
    for (int i = 0; i < words; ++i) {
        QString word = vocabulary.at(qsizetype(random() % quint64(vocabulary.size())));
        if (i % 11 == 0)
            word[0] = word.at(0).toUpper();
        text += word + (i % 11 == 10 || i + 1 == words ? QStringLiteral(". ") : QStringLiteral(" "));
    }
    return text.trimmed();
}

class Soak
{
public:
    Soak(const Options &options, const std::array<QUrl, 5> &servers)
        : m_options(options)
        , m_random(options.seed)
        , m_servers(servers)
        , m_defaults(m_dir.filePath(QStringLiteral("defaults.conf")))
        , m_keychain(QStringLiteral("com.vantor.quillvox.soak"), std::make_unique<MemorySecretStore>())
        , m_history(m_defaults, m_dir.filePath(QStringLiteral("History")))
        , m_records(m_history)
    {
        m_keychain.save(QStringLiteral("local"), KeychainKey::openAIAPIKey);
        SpeechManager::Services services;
        services.defaults = &m_defaults;
        services.keychain = &m_keychain;
        services.account = &m_account;
        services.records = &m_records;
        services.selection = &m_selection;
        services.audioSink =
            std::make_unique<NullAudioSink>(NullAudioSink::Clock::RealTime, options.pace.toDouble());
        services.serviceOrigin = servers[0];
        services.openAIOrigin = servers[0];
        m_speech = std::make_unique<SpeechManager>(std::move(services));
        QObject::connect(m_speech.get(), &SpeechManager::playbackEnded,
                         [this] { m_endedSinceAction = true; });
        QObject::connect(m_speech.get(), &SpeechManager::seekPerformed, [this] { m_seekPending = false; });
    }

    int run();

private:
    enum class Activity { Narration, Replay, Stopped };

    bool violated(bool condition, const char *what)
    {
        if (!condition)
            return false;
        ++m_violations;
        // The same broken invariant on every turn of a stuck step would flood the output.
        if (++m_reported[what] > 3)
            return true;
        std::fprintf(stderr, "narration %d (%s, %s): %s\n    %s\n", m_index, kFaultNames[int(m_fault)],
                     kInterruptionNames[int(m_interruption)], what, qPrintable(stateText()));
        return true;
    }

    QString stateText() const
    {
        const SpeechManager &s = *m_speech;
        return QStringLiteral("isPlaying=%1 isProcessing=%2 hasContent=%3 error=\"%4\" currentTime=%5 "
                              "totalTime=%6 displayedTotalTime=%7 frame=%8 receivedFrames=%9 speed=%10 "
                              "streamRecorded=%11")
            .arg(s.isPlaying())
            .arg(s.isProcessing())
            .arg(s.hasContent())
            .arg(s.currentErrorDescription())
            .arg(s.currentTime())
            .arg(s.totalTime())
            .arg(s.displayedTotalTime())
            .arg(s.currentPlaybackFrame())
            .arg(s.accumulatedByteCount() / 2)
            .arg(double(s.playbackSpeed()))
            .arg(m_records.ended);
    }

    // What must hold at any moment the event loop is free.
    void checkAlways()
    {
        const SpeechManager &s = *m_speech;
        violated(s.isPlaying() && !s.hasContent(), "isPlaying without content");
        violated(s.isPlaying() && s.hasError(), "isPlaying while an error is shown");
        violated(s.currentTime() > s.totalTime() + 1e-9, "progress past the total");
        violated(s.currentPlaybackFrame() > s.accumulatedByteCount() / 2, "playback frame past the audio");
        violated(s.displayedTotalTime() + 1e-9 < s.totalTime(), "displayed total below the total");
        violated(!s.hasContent() && (s.currentTime() != 0 || s.totalTime() != 0),
                 "progress or total without content");
    }

    // Runs the event loop until `done`, checking the invariants on every turn. False when the step's time
    // limit passed first (a hang).
    bool runUntil(const std::function<bool()> &done, const char *step)
    {
        QDeadlineTimer deadline(m_options.stepTimeoutMs);
        QEventLoop loop;
        QTimer turn;
        bool finished = false;
        QObject::connect(&turn, &QTimer::timeout, [&] {
            checkAlways();
            if (done()) {
                finished = true;
                loop.quit();
            } else if (deadline.hasExpired()) {
                loop.quit();
            }
        });
        turn.start(1);
        loop.exec();
        if (!finished) {
            ++m_hangs;
            std::fprintf(stderr, "narration %d (%s, %s): HANG, %s did not finish within %d ms\n    %s\n",
                         m_index, kFaultNames[int(m_fault)], kInterruptionNames[int(m_interruption)], step,
                         m_options.stepTimeoutMs, qPrintable(stateText()));
            // Tells a lost wake-up of the audio engine (the hang ends when its completions are fetched by
            // hand) from a stuck narration.
            m_speech->audioEngine()->deliverPending();
            std::fprintf(stderr, "    after deliverPending(): %s\n", qPrintable(stateText()));
        }
        return finished;
    }

    void wait(int ms)
    {
        QElapsedTimer clock;
        clock.start();
        runUntil([&] { return clock.elapsed() >= ms; }, "a wait");
    }

    // Nothing more will happen by itself: the narration was heard (or held paused where a seek put it),
    // failed, was stopped.
    bool settled() const
    {
        const SpeechManager &s = *m_speech;
        if (m_seekPending || s.isPlaying() || s.isProcessing())
            return false;
        switch (m_activity) {
        case Activity::Narration:
            return s.hasError() || m_records.ended;
        case Activity::Replay:
            return m_endedSinceAction || s.hasError() || !s.hasContent();
        case Activity::Stopped:
            return true;
        }
        return true;
    }

    void useServer(Fault fault)
    {
        const QUrl url = m_servers[int(fault)];
        m_defaults.setString(OpenAIServer::serverKey, url.toString());
    }

    void speak(const QString &text)
    {
        m_records.ended = false;
        m_activity = Activity::Narration;
        m_endedSinceAction = false;
        m_speech->speak(text);
    }

    int pick(int count) { return int(m_random() % quint64(count)); }

    void narrate();
    void interrupt();
    void checkOutcome();

    const Options &m_options;
    std::mt19937_64 m_random;
    const std::array<QUrl, 5> m_servers;
    QNetworkAccessManager m_control;
    QTemporaryDir m_dir;
    UserDefaults m_defaults;
    KeychainHelper m_keychain;
    NoAccount m_account;
    NoSelection m_selection;
    HistoryManager m_history;
    SoakRecords m_records;
    std::unique_ptr<SpeechManager> m_speech;

    int m_index = 0;
    Fault m_fault = Fault::None;
    Interruption m_interruption = Interruption::Seek;
    int m_status = 0;
    Activity m_activity = Activity::Stopped;
    // The narration that is current now is expected to fail (the replacing one of a new narration
    // does not).
    bool m_expectFailure = false;
    bool m_endedSinceAction = false;
    bool m_seekPending = false;

    int m_hangs = 0;
    int m_violations = 0;
    std::map<std::string, int> m_reported;
    std::map<Fault, int> m_faults;
    std::map<Interruption, int> m_interruptions;
    std::map<int, int> m_statuses;
};

void Soak::narrate()
{
    m_fault = Fault::None;
    if (pick(4) == 0)
        m_fault = Fault(1 + pick(4));
    ++m_faults[m_fault];
    if (m_fault == Fault::ErrorStatus) {
        m_status = kErrorStatuses[std::size_t(pick(int(kErrorStatuses.size())))];
        ++m_statuses[m_status];
        // Armed on a server of its own just before the request: a narration stopped before its request
        // went out leaves the failure armed, and only the next error-status narration replaces it.
        QUrl control = m_servers[int(Fault::ErrorStatus)];
        control.setPath(QStringLiteral("/dev/fail"));
        QNetworkRequest request(control);
        request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
        const QJsonObject failure{{"route", "speech"}, {"status", m_status}, {"count", 1}};
        QNetworkReply *reply = m_control.post(request, QJsonDocument(failure).toJson());
        runUntil([reply] { return reply->isFinished(); }, "arming the error status");
        reply->deleteLater();
        violated(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() != 200,
                 "the dev server took no failure");
    }
    useServer(m_fault);
    m_expectFailure = m_fault == Fault::ErrorStatus || m_fault == Fault::Dropped;

    speak(soakText(m_random, 5 + pick(56)));
    // The moment of the interruption: anywhere from at once to well after a short narration has ended.
    const int delayMs = pick(4) == 0 ? 0 : pick(1200);
    m_interruption = Interruption(pick(6));
    if (m_interruption == Interruption::HistoryReplay && m_history.sessions().isEmpty())
        m_interruption = Interruption::NewNarration;
    ++m_interruptions[m_interruption];
    wait(delayMs);
    checkAlways();
    interrupt();
    checkAlways();
    runUntil([this] { return settled(); }, "the narration");
    checkOutcome();
}

void Soak::interrupt()
{
    SpeechManager &s = *m_speech;
    m_endedSinceAction = false;
    switch (m_interruption) {
    case Interruption::Seek: {
        const qint64 frames = s.accumulatedByteCount() / 2;
        switch (pick(4)) {
        case 0:
            s.seekToFrame(qint64(m_random() % quint64(frames + frames / 4 + 1)) - (pick(8) == 0 ? 5000 : 0));
            m_seekPending = true;
            break;
        case 1:
            s.seekToProgress(double(pick(1101)) / 1000.0);
            break;
        case 2:
            s.skipForward();
            m_seekPending = true;
            break;
        default:
            s.skipBackward();
            m_seekPending = true;
            break;
        }
        // A second seek within the debounce replaces the first.
        if (m_seekPending && pick(3) == 0) {
            wait(pick(40));
            s.seekToFrame(qint64(m_random() % quint64(frames + 1)));
        }
        break;
    }
    case Interruption::Speed: {
        const QList<float> &speeds = playbackSpeeds();
        if (pick(2) == 0)
            s.cyclePlaybackSpeed();
        else
            s.setPlaybackSpeed(speeds.at(pick(int(speeds.size()))));
        break;
    }
    case Interruption::Pause:
        if (s.isPlaying()) {
            s.togglePlayPause();
            violated(s.isPlaying(), "still playing after pause");
            // A pull the device had already begun still counts as heard once it ends.
            wait(20);
            const qint64 frame = s.currentPlaybackFrame();
            wait(20 + pick(150));
            violated(s.currentPlaybackFrame() != frame, "the place moved while paused");
            violated(s.isPlaying(), "playing again by itself while paused");
        }
        // Play pressed: resumes, or plays again from the start what was heard to its end.
        m_endedSinceAction = false;
        s.togglePlayPause();
        break;
    case Interruption::Stop:
        s.stop();
        m_activity = Activity::Stopped;
        m_expectFailure = false;
        violated(s.isPlaying() || s.isProcessing() || s.hasContent() || s.currentTime() != 0 ||
                     s.totalTime() != 0 || s.accumulatedByteCount() != 0,
                 "not idle after stop");
        if (pick(2) == 0) {
            // Play pressed with nothing to play.
            s.togglePlayPause();
            violated(s.isPlaying(), "playing after stop with nothing to play");
        }
        break;
    case Interruption::NewNarration:
        useServer(Fault::None);
        m_expectFailure = false;
        speak(soakText(m_random, 3 + pick(30)));
        break;
    case Interruption::HistoryReplay: {
        const QList<NarrationSession> sessions = m_history.sessions();
        const NarrationSession &session = sessions.at(pick(int(sessions.size())));
        m_activity = Activity::Replay;
        m_expectFailure = false;
        s.playFromHistory(session.id);
        violated(s.currentPlayingSessionId() != session.id, "the replayed entry is not the current one");
        violated(!s.isPlaying(), "a replay is not playing");
        violated(s.hasError(), "an error is shown during a replay");
        break;
    }
    }
}

void Soak::checkOutcome()
{
    const SpeechManager &s = *m_speech;
    checkAlways();
    if (m_activity == Activity::Stopped) {
        violated(s.hasContent() || s.isPlaying() || s.isProcessing(), "not idle after stop");
        return;
    }
    if (m_expectFailure) {
        if (violated(!s.hasError(), "no error after a failed request"))
            return;
        const SpeechError expected = m_fault == Fault::ErrorStatus
                                         ? speechErrorForStatus(m_status, 0)
                                         : SpeechError::make(SpeechError::invalidResponse);
        violated(s.currentError()->kind() != expected.kind(), "the error is not the one of the fault");
        violated(s.accumulatedByteCount() != 0, "audio kept from a failed request");
        return;
    }
    violated(s.hasError(), "an error is left from a narration that succeeded");
    violated(!s.hasContent(), "no content after a narration that succeeded");
    violated(s.accumulatedByteCount() == 0, "no audio after a narration that succeeded");
    if (m_activity == Activity::Replay)
        violated(!s.currentPlayingSessionId(), "the replayed entry was forgotten");
}

int Soak::run()
{
    QElapsedTimer wall;
    wall.start();
    ResidentReading tenth;
    for (m_index = 1; m_index <= m_options.narrations; ++m_index) {
        narrate();
        if (m_index == 10)
            tenth = readResident();
        if (m_index % 50 == 0)
            std::printf("  %d narrations, %lld s, VmRSS %ld KiB, %d hangs, %d violations\n", m_index,
                        wall.elapsed() / 1000, residentKiB(), m_hangs, m_violations);
        std::fflush(stdout);
    }
    m_speech->stop();
    const ResidentReading last = readResident();
    const double ratio = double(last.live) / double(tenth.live);

    std::printf("Narrations: %d in %.1f s\n", m_options.narrations, double(wall.elapsed()) / 1000);
    std::printf("Faults:");
    for (const auto &[fault, count] : m_faults)
        std::printf("  %s %d", kFaultNames[int(fault)], count);
    std::printf("\n  error statuses:");
    for (const auto &[status, count] : m_statuses)
        std::printf("  %d: %d", status, count);
    std::printf("\nInterruptions:");
    for (const auto &[interruption, count] : m_interruptions)
        std::printf("  %s %d", kInterruptionNames[int(interruption)], count);
    std::printf("\nHangs: %d   Broken invariants: %d\n", m_hangs, m_violations);
    std::printf("VmRSS after narration 10: %ld KiB   after the last: %ld KiB   ratio %.3f (limit 1.100)\n",
                tenth.live, last.live, ratio);
    std::printf("  of which RssAnon %ld -> %ld KiB, RssFile %ld -> %ld KiB\n", tenth.anon, last.anon,
                tenth.file, last.file);
#ifdef QUILLVOX_SOAK_SANITIZED
    std::printf("  before the sanitizer gave back what it holds: %ld -> %ld KiB, ratio %.3f\n", tenth.held,
                last.held, double(last.held) / double(tenth.held));
    std::printf("  heap in use by the sanitizer's count: %ld -> %ld KiB, ratio %.3f\n", tenth.heap, last.heap,
                double(last.heap) / double(tenth.heap));
#endif
    std::fflush(stdout);
    return m_hangs == 0 && m_violations == 0 && ratio <= 1.10 ? 0 : 1;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const std::optional<Options> options = parseOptions(app.arguments());
    if (!options) {
        std::fprintf(stderr, "usage: soak_bench [--seed N] [--narrations N>10] [--pace X] "
                             "[--step-timeout-ms N] [--servers URL,URL,URL,URL,URL]\n");
        return 2;
    }
    std::printf("soak: seed %llu, %d narrations, pace %s, step limit %d ms\n",
                static_cast<unsigned long long>(options->seed), options->narrations,
                qPrintable(options->pace), options->stepTimeoutMs);
    std::fflush(stdout);

    // One server per kind of fault; the error-status one answers with the status injected before each
    // narration that uses it.
    const QStringList common{QStringLiteral("--synth"), QStringLiteral("sine"), QStringLiteral("--pace"),
                             options->pace};
    const std::array<QStringList, 5> faultArguments{
        QStringList{},
        QStringList{QStringLiteral("--cut-after"), QStringLiteral("30001")},
        QStringList{},
        QStringList{QStringLiteral("--drop-before-head")},
        QStringList{QStringLiteral("--ttfb-ms"), QStringLiteral("1500")},
    };
    std::array<std::unique_ptr<DevServer>, 5> servers;
    std::array<QUrl, 5> urls;
    if (!options->serverUrls.isEmpty()) {
        for (std::size_t i = 0; i < urls.size(); ++i)
            urls[i] = QUrl(options->serverUrls.at(qsizetype(i)));
    } else {
        for (std::size_t i = 0; i < servers.size(); ++i) {
            servers[i] = std::make_unique<DevServer>();
            if (!servers[i]->start(common + faultArguments[i])) {
                std::fprintf(stderr, "%s\n", qPrintable(servers[i]->errorString()));
                return 1;
            }
            urls[i] = servers[i]->url();
        }
    }

    int result = 0;
    {
        Soak soak(*options, urls);
        result = soak.run();
    }

    // The dev servers are instrumented too: their reports count as well.
    int serverReports = 0;
    for (std::size_t i = 0; i < servers.size(); ++i) {
        if (!servers[i])
            continue;
        const int code = servers[i]->stop(std::chrono::seconds(30));
        const QString errors = servers[i]->standardError();
        const bool report = errors.contains(QStringLiteral("Sanitizer")) || code != 0;
        if (report) {
            ++serverReports;
            std::fprintf(stderr, "dev server (%s) exit code %d:\n%s\n", kFaultNames[i], code,
                         qPrintable(errors));
        }
    }
    if (options->serverUrls.isEmpty())
        std::printf("Dev servers with a sanitizer report or a bad exit: %d\n", serverReports);
    return result == 0 && serverReports == 0 ? 0 : 1;
}
