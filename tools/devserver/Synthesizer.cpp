// SPDX-License-Identifier: GPL-3.0-or-later
#include "Synthesizer.h"

#include <soxr.h>

#include <cmath>
#include <numbers>
#include <stdexcept>

namespace {

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

std::vector<std::int16_t> Synthesizer::synthesize(std::string_view text, std::string_view voice)
{
    const EspeakProcess::Speech speech = m_espeak.speak(text, voice);
    std::vector<std::int16_t> samples = resample(speech.samples, speech.sampleRateHz, outputRateHz);
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
