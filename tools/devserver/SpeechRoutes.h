// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "AccountState.h"
#include "Options.h"
#include "Routes.h"
#include "SpeechRequest.h"
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
// service: wants a signed-in user's access token and time left on the balance, and charges the seconds
// streamed to it). Both answer with streamed audio (the service always 24 kHz PCM, /v1/audio/speech in the
// format the options choose) or a JSON error, after the configured delay and with the
// configured faults. /v1/audio/speech refuses an input longer than OpenAI's, with OpenAI's 400.
class SpeechRoutes final : public Routes
{
public:
    static constexpr int kOpenAIInputLimit = 4096;

    SpeechRoutes(const Options &options, Synthesizer &synthesizer, AccountState &account,
                 const StopFlag &stop);
    void install(httplib::Server &server) override;

private:
    enum class Backend { OpenAI, Service };

    void handle(const httplib::Request &request, httplib::Response &response, Backend backend) const;
    bool authorise(const httplib::Request &request, httplib::Response &response, Backend backend) const;

    // What self-hosted servers refuse (--voices, --max-input, --refuse-instructions), answered as they do.
    bool refusedAsSelfHosted(const SpeechRequest &speech, const std::string &body,
                             httplib::Response &response) const;
    // For the service backend: answers 402 unless there is time left to narrate.
    bool hasBalance(httplib::Response &response) const;

    Synthesizer &m_synthesizer;
    AccountState &m_account;
    const StopFlag &m_stop;
    std::string m_openaiKey;
    std::chrono::milliseconds m_ttfb;
    double m_pace;
    std::optional<int> m_failStatus;
    std::optional<std::uint64_t> m_cutAfterBytes;
    Options m_options;
};
