// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "Options.h"
#include "Routes.h"
#include "StopFlag.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace httplib {
struct Request;
struct Response;
} // namespace httplib

class Synthesizer;

// POST /v1/audio/speech (OpenAI-compatible, one accepted key) and POST /api/tts/stream (the Quillvox
// service, any non-empty bearer token for now). Both answer with streamed PCM or a JSON error, after the
// configured delay and with the configured faults.
class SpeechRoutes final : public Routes
{
public:
    SpeechRoutes(const Options &options, Synthesizer &synthesizer, const StopFlag &stop);
    void install(httplib::Server &server) override;

private:
    enum class Backend { OpenAI, Service };

    void handle(const httplib::Request &request, httplib::Response &response, Backend backend) const;
    bool authorise(const httplib::Request &request, httplib::Response &response, Backend backend) const;

    Synthesizer &m_synthesizer;
    const StopFlag &m_stop;
    std::string m_openaiKey;
    std::chrono::milliseconds m_ttfb;
    double m_pace;
    std::optional<int> m_failStatus;
    std::optional<std::uint64_t> m_cutAfterBytes;
};
