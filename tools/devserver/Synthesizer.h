// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "EspeakProcess.h"
#include "Options.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Turns text into 16-bit mono samples, at 24 kHz unless asked otherwise: espeak-ng speech resampled with
// libsoxr, or a pure tone exactly as long as that speech would be (so that pitch and timing can be measured
// against a known signal while lengths stay realistic).
class Synthesizer
{
public:
    static constexpr int outputRateHz = 24000;

    // Starts the espeak-ng helper process: construct before the server starts any thread.
    Synthesizer(Options::Synth mode, double sineHz);

    // Callable from several threads; utterances are made one at a time. The same text and voice always
    // give the same samples. An unknown voice speaks with the default voice. The samples are at rateHz
    // (the tone is made at that rate, so its pitch is exact at any rate).
    // Throws std::runtime_error if synthesis fails.
    std::vector<std::int16_t> synthesize(std::string_view text, std::string_view voice,
                                         int rateHz = outputRateHz);

    Options::Synth mode() const { return m_mode; }

private:
    const Options::Synth m_mode;
    const double m_sineHz;
    EspeakProcess m_espeak;
};
