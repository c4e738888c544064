// SPDX-License-Identifier: GPL-3.0-or-later
#include "SpeechRoutes.h"

#include "BodyMeter.h"
#include "JsonResponse.h"
#include "PacedBody.h"
#include "SpeechRequest.h"
#include "Synthesizer.h"

#include <httplib.h>

#include <algorithm>
#include <cctype>
#include <exception>
#include <utility>

namespace {

std::string_view trimmed(std::string_view text)
{
    const auto isSpace = [](char c) { return c == ' ' || c == '\t'; };
    while (!text.empty() && isSpace(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && isSpace(text.back()))
        text.remove_suffix(1);
    return text;
}

// The token of an "Authorization: Bearer <token>" header (possibly empty), or nothing when the header
// is missing or uses another scheme. Scheme names are case-insensitive.
std::optional<std::string> bearerToken(const httplib::Request &request)
{
    if (!request.has_header("Authorization"))
        return std::nullopt;
    const std::string header = request.get_header_value("Authorization");
    const std::string_view value = trimmed(header);
    constexpr std::string_view scheme = "bearer";
    const bool schemeMatches =
        value.size() >= scheme.size() &&
        std::equal(scheme.begin(), scheme.end(), value.begin(),
                   [](char a, char b) { return a == std::tolower(static_cast<unsigned char>(b)); }) &&
        (value.size() == scheme.size() || value[scheme.size()] == ' ');
    if (!schemeMatches)
        return std::nullopt;
    return std::string(trimmed(value.substr(scheme.size())));
}

} // namespace

SpeechRoutes::SpeechRoutes(const Options &options, Synthesizer &synthesizer, const StopFlag &stop)
    : m_synthesizer(synthesizer)
    , m_stop(stop)
    , m_openaiKey(options.openaiKey)
    , m_ttfb(options.ttfbMs)
    , m_pace(options.pace)
    , m_failStatus(options.failStatus)
    , m_cutAfterBytes(options.cutAfterBytes)
{}

void SpeechRoutes::install(httplib::Server &server)
{
    server.Post("/v1/audio/speech", [this](const httplib::Request &request, httplib::Response &response) {
        handle(request, response, Backend::OpenAI);
    });
    server.Post("/api/tts/stream", [this](const httplib::Request &request, httplib::Response &response) {
        handle(request, response, Backend::Service);
    });
}

void SpeechRoutes::handle(const httplib::Request &request, httplib::Response &response, Backend backend) const
{
    // The delay counts from arrival, so that synthesis time is part of it, as on a real server.
    const auto headDue = StopFlag::Clock::now() + m_ttfb;
    const auto waitForHead = [&] { return m_stop.sleepUntil(headDue); };

    if (m_failStatus) {
        setJsonError(response, *m_failStatus,
                     "Failure injected by quillvox-devserver --fail-status " + std::to_string(*m_failStatus) +
                         ".",
                     *m_failStatus >= 500 ? "server_error" : "invalid_request_error");
        waitForHead();
        return;
    }
    if (!authorise(request, response, backend)) {
        waitForHead();
        return;
    }
    const auto parsed = SpeechRequest::parse(request.body);
    if (const auto *invalid = std::get_if<SpeechRequest::Invalid>(&parsed)) {
        setJsonError(response, 400, invalid->message, "invalid_request_error", invalid->param);
        waitForHead();
        return;
    }
    const auto &speech = std::get<SpeechRequest>(parsed);

    std::vector<std::int16_t> samples;
    try {
        samples = m_synthesizer.synthesize(speech.input, speech.voice);
    } catch (const std::exception &error) {
        setJsonError(response, 500, error.what(), "server_error");
        waitForHead();
        return;
    }
    // Everything that takes time happens before the wait, so that the head leaves on time.
    PacedBody body(samples, m_pace, m_cutAfterBytes, m_stop);
    if (!waitForHead()) {
        setJsonError(response, 503, "The server is shutting down.", "server_error");
        return;
    }
    response.status = 200;
    BodyMeter::beginStream();
    response.set_chunked_content_provider("audio/pcm", std::move(body));
}

bool SpeechRoutes::authorise(const httplib::Request &request, httplib::Response &response,
                             Backend backend) const
{
    const std::optional<std::string> token = bearerToken(request);
    if (backend == Backend::OpenAI) {
        if (!token || token->empty()) {
            setJsonError(
                response, 401,
                "You didn't provide an API key. Provide it in an Authorization header using Bearer auth "
                "(Authorization: Bearer YOUR_KEY).",
                "invalid_request_error");
            return false;
        }
        if (*token != m_openaiKey) {
            setJsonError(response, 401, "Incorrect API key provided.", "invalid_request_error", {},
                         "invalid_api_key");
            return false;
        }
        return true;
    }
    if (!token || token->empty()) {
        setJsonError(response, 401, "Missing bearer token.", "authentication_error", {}, "missing_token");
        return false;
    }
    return true;
}
