// SPDX-License-Identifier: GPL-3.0-or-later
#include "EspeakProcess.h"

#include <espeak-ng/speak_lib.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace {

struct VoiceSetting
{
    std::string_view name;
    const char *espeakVoice;
    int rateWpm;
    int pitch;
};

// Distinct enough by ear and by byte count that a test can tell which voice was asked for.
constexpr VoiceSetting voiceSettings[] = {
    {"marin", "en-us+f2", 175, 55}, {"cedar", "en-gb-x-rp+m3", 168, 45}, {"alloy", "en-us+m1", 175, 50},
    {"echo", "en-us+m2", 165, 40},  {"fable", "en-gb-x-rp+m4", 170, 55}, {"nova", "en-us+f1", 185, 60},
    {"onyx", "en-us+m6", 160, 30},  {"shimmer", "en-us+f3", 180, 70},
};
constexpr VoiceSetting defaultVoice = {"", "en-us", 175, 50};

const VoiceSetting &settingFor(std::string_view voice)
{
    const auto it = std::find_if(std::begin(voiceSettings), std::end(voiceSettings),
                                 [voice](const VoiceSetting &s) { return s.name == voice; });
    return it != std::end(voiceSettings) ? *it : defaultVoice;
}

// Requests and replies on the socket: a fixed header, then the variable parts.
struct RequestHeader
{
    std::uint32_t textBytes;
    std::uint32_t voiceBytes;
};
struct ReplyHeader
{
    // 0, or why the utterance failed (see the helper's exit codes below).
    std::int32_t status;
    std::int32_t sampleRateHz;
    std::uint64_t sampleBytes;
};

enum HelperStatus : std::int32_t {
    Ok = 0,
    InitialiseFailed = 1,
    NoVoice = 2,
    SynthFailed = 3,
    WriteFailed = 4,
    ChildFailed = 5,
};

bool writeAll(int fd, const void *data, std::size_t length)
{
    const char *bytes = static_cast<const char *>(data);
    while (length > 0) {
        const ssize_t written = ::write(fd, bytes, length);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        bytes += written;
        length -= static_cast<std::size_t>(written);
    }
    return true;
}

bool readAll(int fd, void *data, std::size_t length)
{
    char *bytes = static_cast<char *>(data);
    while (length > 0) {
        const ssize_t count = ::read(fd, bytes, length);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        bytes += count;
        length -= static_cast<std::size_t>(count);
    }
    return true;
}

std::string readToEnd(int fd)
{
    std::string bytes;
    char buffer[65536];
    while (true) {
        const ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return bytes;
        bytes.append(buffer, static_cast<std::size_t>(count));
    }
}

int collectSamples(short *samples, int count, espeak_EVENT *events)
{
    auto *out = static_cast<std::vector<std::int16_t> *>(events->user_data);
    if (out && samples && count > 0)
        out->insert(out->end(), samples, samples + count);
    return 0;
}

[[noreturn]] void speakAndExit(int output, const std::string &text, const VoiceSetting &setting)
{
    std::srand(1);
    if (espeak_SetVoiceByName(setting.espeakVoice) != EE_OK &&
        espeak_SetVoiceByName(defaultVoice.espeakVoice) != EE_OK)
        ::_exit(NoVoice);
    espeak_SetParameter(espeakRATE, setting.rateWpm, 0);
    espeak_SetParameter(espeakPITCH, setting.pitch, 0);
    std::vector<std::int16_t> samples;
    if (espeak_Synth(text.c_str(), text.size() + 1, 0, POS_CHARACTER, 0, espeakCHARS_UTF8, nullptr,
                     &samples) != EE_OK) {
        ::_exit(SynthFailed);
    }
    ::_exit(writeAll(output, samples.data(), samples.size() * sizeof(std::int16_t)) ? Ok : WriteFailed);
}

// One utterance in a child of the helper; the samples come back through a pipe.
ReplyHeader speakInChild(const std::string &text, const std::string &voice, int socket, std::string &samples)
{
    ReplyHeader reply{ChildFailed, 0, 0};
    int pipe[2];
    if (::pipe(pipe) != 0)
        return reply;
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(pipe[0]);
        ::close(socket);
        speakAndExit(pipe[1], text, settingFor(voice));
    }
    ::close(pipe[1]);
    if (child < 0) {
        ::close(pipe[0]);
        return reply;
    }
    samples = readToEnd(pipe[0]);
    ::close(pipe[0]);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status))
        reply.status = WEXITSTATUS(status);
    if (reply.status != Ok)
        samples.clear();
    reply.sampleBytes = samples.size();
    return reply;
}

[[noreturn]] void runHelper(int socket)
{
    // The server handles the exit signals and closes the socket on its way out; that is the helper's
    // signal to go.
    std::signal(SIGINT, SIG_IGN);
    std::signal(SIGTERM, SIG_IGN);
    std::signal(SIGPIPE, SIG_IGN);
    if (const int null = ::open("/dev/null", O_RDWR); null >= 0) {
        ::dup2(null, STDIN_FILENO);
        ::dup2(null, STDOUT_FILENO);
        ::close(null);
    }
    if (socket > 3)
        ::close_range(3, static_cast<unsigned>(socket) - 1, 0);
    ::close_range(static_cast<unsigned>(socket) + 1, ~0U, 0);

    // Initialise now, in parallel with the server's own start, so the first request does not wait.
    const int sampleRateHz =
        espeak_Initialize(AUDIO_OUTPUT_SYNCHRONOUS, 200, nullptr, espeakINITIALIZE_DONT_EXIT);
    if (sampleRateHz > 0)
        espeak_SetSynthCallback(collectSamples);

    while (true) {
        RequestHeader request{};
        if (!readAll(socket, &request, sizeof request))
            ::_exit(0);
        std::string text(request.textBytes, '\0');
        std::string voice(request.voiceBytes, '\0');
        if (!readAll(socket, text.data(), text.size()) || !readAll(socket, voice.data(), voice.size()))
            ::_exit(0);

        std::string samples;
        ReplyHeader reply{InitialiseFailed, 0, 0};
        if (sampleRateHz > 0) {
            reply = speakInChild(text, voice, socket, samples);
            reply.sampleRateHz = sampleRateHz;
        }
        if (!writeAll(socket, &reply, sizeof reply) || !writeAll(socket, samples.data(), samples.size()))
            ::_exit(0);
    }
}

const char *describe(std::int32_t status)
{
    switch (status) {
    case InitialiseFailed:
        return "espeak-ng could not be initialised (is espeak-ng-data installed?)";
    case NoVoice:
        return "espeak-ng has no usable voice";
    case SynthFailed:
        return "espeak-ng failed to synthesise";
    default:
        return "the espeak-ng child process failed";
    }
}

} // namespace

EspeakProcess::EspeakProcess()
{
    int sockets[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0)
        throw std::runtime_error(std::string("socketpair: ") + std::strerror(errno));
    m_helper = ::fork();
    if (m_helper == 0) {
        ::close(sockets[0]);
        runHelper(sockets[1]);
    }
    ::close(sockets[1]);
    if (m_helper < 0) {
        ::close(sockets[0]);
        throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
    }
    m_socket = sockets[0];
}

EspeakProcess::~EspeakProcess()
{
    ::close(m_socket);
    while (::waitpid(m_helper, nullptr, 0) < 0 && errno == EINTR) {
    }
}

EspeakProcess::Speech EspeakProcess::speak(std::string_view text, std::string_view voice)
{
    std::lock_guard lock(m_mutex);
    const RequestHeader request{static_cast<std::uint32_t>(text.size()),
                                static_cast<std::uint32_t>(voice.size())};
    ReplyHeader reply{};
    if (!writeAll(m_socket, &request, sizeof request) || !writeAll(m_socket, text.data(), text.size()) ||
        !writeAll(m_socket, voice.data(), voice.size()) || !readAll(m_socket, &reply, sizeof reply)) {
        throw std::runtime_error("the espeak-ng helper process is gone");
    }
    Speech speech;
    speech.sampleRateHz = reply.sampleRateHz;
    speech.samples.resize(reply.sampleBytes / sizeof(std::int16_t));
    if (reply.sampleBytes % sizeof(std::int16_t) != 0 ||
        !readAll(m_socket, speech.samples.data(), reply.sampleBytes)) {
        throw std::runtime_error("the espeak-ng helper process is gone");
    }
    if (reply.status != Ok)
        throw std::runtime_error(describe(reply.status));
    return speech;
}
