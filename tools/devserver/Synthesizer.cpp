// SPDX-License-Identifier: GPL-3.0-or-later
#include "Synthesizer.h"

#include <soxr.h>

#include <algorithm>
#include <cmath>
#include <memory>
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
    soxr_error_t error = nullptr;
    const std::unique_ptr<soxr, decltype(&soxr_delete)> resampler(
        soxr_create(fromHz, toHz, 1, &error, &io, &quality, nullptr), &soxr_delete);
    if (error)
        throw std::runtime_error(std::string("soxr: ") + error);
    // In blocks: given all at once, soxr grows its queue by small reallocations, which copy the whole
    // queue each time under a sanitizer's allocator and take minutes for a long text.
    constexpr std::size_t block = 16384;
    std::size_t produced = 0;
    for (std::size_t at = 0; produced < out.size();) {
        // An empty input tells soxr the text has ended; it then hands out what it still holds.
        const std::size_t length = std::min(block, in.size() - at);
        std::size_t used = 0;
        std::size_t made = 0;
        error = soxr_process(resampler.get(), length ? in.data() + at : nullptr, length, &used,
                             out.data() + produced, out.size() - produced, &made);
        if (error)
            throw std::runtime_error(std::string("soxr: ") + error);
        at += used;
        produced += made;
        if (length == 0 && made == 0)
            break;
    }
    out.resize(produced);
    return out;
}

} // namespace

Synthesizer::Synthesizer(Options::Synth mode, double sineHz)
    : m_mode(mode)
    , m_sineHz(sineHz)
{}

std::vector<std::int16_t> Synthesizer::synthesize(std::string_view text, std::string_view voice, int rateHz)
{
    const EspeakProcess::Speech speech = m_espeak.speak(text, voice);
    std::vector<std::int16_t> samples = resample(speech.samples, speech.sampleRateHz, rateHz);
    if (m_mode == Options::Synth::Sine) {
        // Full scale would clip after any gain a client applies; a third leaves headroom.
        constexpr double amplitude = 32767.0 / 3.0;
        const double step = 2.0 * std::numbers::pi * m_sineHz / rateHz;
        for (std::size_t i = 0; i < samples.size(); ++i)
            samples[i] =
                static_cast<std::int16_t>(std::lround(amplitude * std::sin(step * static_cast<double>(i))));
    }
    return samples;
}
