// SPDX-License-Identifier: GPL-3.0-or-later
#include "Synthesizer.h"

#include <espeak-ng/speak_lib.h>
#include <soxr.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <numbers>
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

int collectSamples(short *samples, int count, espeak_EVENT *events)
{
    auto *out = static_cast<std::vector<std::int16_t> *>(events->user_data);
    if (out && samples && count > 0)
        out->insert(out->end(), samples, samples + count);
    return 0;
}

bool writeAll(int fd, const char *data, std::size_t length)
{
    while (length > 0) {
        const ssize_t written = ::write(fd, data, length);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        data += written;
        length -= static_cast<std::size_t>(written);
    }
    return true;
}

// Runs in a freshly forked child: no other thread exists there, and nothing but espeak-ng is touched.
[[noreturn]] void speakInChild(int output, const std::string &text, const VoiceSetting &setting)
{
    // Keep no copies of the server's sockets open, or a connection the server closes would linger.
    if (output > 3)
        ::close_range(3, static_cast<unsigned>(output) - 1, 0);
    ::close_range(static_cast<unsigned>(output) + 1, ~0U, 0);
    std::srand(1);
    if (espeak_SetVoiceByName(setting.espeakVoice) != EE_OK &&
        espeak_SetVoiceByName(defaultVoice.espeakVoice) != EE_OK)
        ::_exit(2);
    espeak_SetParameter(espeakRATE, setting.rateWpm, 0);
    espeak_SetParameter(espeakPITCH, setting.pitch, 0);
    std::vector<std::int16_t> samples;
    if (espeak_Synth(text.c_str(), text.size() + 1, 0, POS_CHARACTER, 0, espeakCHARS_UTF8, nullptr,
                     &samples) != EE_OK) {
        ::_exit(3);
    }
    const bool written = writeAll(output, reinterpret_cast<const char *>(samples.data()), samples.size() * 2);
    ::_exit(written ? 0 : 4);
}

std::vector<std::int16_t> resample(const std::vector<std::int16_t> &in, int fromHz, int toHz)
{
    if (fromHz == toHz || in.empty())
        return in;
    std::vector<std::int16_t> out(
        static_cast<std::size_t>(std::ceil(static_cast<double>(in.size()) * toHz / fromHz)) + 16);
    soxr_io_spec_t io = soxr_io_spec(SOXR_INT16_I, SOXR_INT16_I);
    // Dither is random: the same text would give different samples on every request.
    io.flags |= SOXR_NO_DITHER;
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
    std::size_t produced = 0;
    if (const soxr_error_t error = soxr_oneshot(fromHz, toHz, 1, in.data(), in.size(), nullptr, out.data(),
                                                out.size(), &produced, &io, &quality, nullptr)) {
        throw std::runtime_error(std::string("soxr: ") + error);
    }
    out.resize(produced);
    return out;
}

} // namespace

Synthesizer::Synthesizer(Options::Synth mode, double sineHz)
    : m_mode(mode)
    , m_sineHz(sineHz)
{}

std::vector<std::int16_t> Synthesizer::synthesize(const std::string &text, std::string_view voice)
{
    std::vector<std::int16_t> samples;
    {
        std::lock_guard lock(m_mutex);
        const std::vector<std::int16_t> spoken = speak(text, voice);
        samples = resample(spoken, m_espeakRateHz, outputRateHz);
    }
    if (m_mode == Options::Synth::Sine) {
        // Full scale would clip after any gain a client applies; a third leaves headroom.
        constexpr double amplitude = 32767.0 / 3.0;
        const double step = 2.0 * std::numbers::pi * m_sineHz / outputRateHz;
        for (std::size_t i = 0; i < samples.size(); ++i)
            samples[i] =
                static_cast<std::int16_t>(std::lround(amplitude * std::sin(step * static_cast<double>(i))));
    }
    return samples;
}

// Initialising costs a few milliseconds and the tests start this server many times, most of them
// never asking for speech: do it on first use.
void Synthesizer::initialiseEspeak()
{
    if (m_espeakRateHz > 0)
        return;
    const int rate = espeak_Initialize(AUDIO_OUTPUT_SYNCHRONOUS, 200, nullptr, espeakINITIALIZE_DONT_EXIT);
    if (rate <= 0)
        throw std::runtime_error("espeak-ng could not be initialised (is espeak-ng-data installed?)");
    espeak_SetSynthCallback(collectSamples);
    m_espeakRateHz = rate;
}

// espeak-ng carries state from one utterance into the next (pitch flutter, waveform phase), so the
// same request would come out a little different, even in length, every time. Each utterance is made
// in a child forked from the freshly initialised engine instead: same text and voice, same samples.
std::vector<std::int16_t> Synthesizer::speak(const std::string &text, std::string_view voice)
{
    initialiseEspeak();
    int pipe[2];
    if (::pipe2(pipe, O_CLOEXEC) != 0)
        throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(pipe[0]);
        speakInChild(pipe[1], text, settingFor(voice));
    }
    ::close(pipe[1]);
    if (child < 0) {
        ::close(pipe[0]);
        throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
    }

    std::string bytes;
    char buffer[65536];
    while (true) {
        const ssize_t count = ::read(pipe[0], buffer, sizeof buffer);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            break;
        bytes.append(buffer, static_cast<std::size_t>(count));
    }
    ::close(pipe[0]);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        throw std::runtime_error("espeak-ng failed to synthesise (child status " + std::to_string(status) +
                                 ")");

    std::vector<std::int16_t> samples(bytes.size() / 2);
    std::memcpy(samples.data(), bytes.data(), samples.size() * 2);
    return samples;
}
