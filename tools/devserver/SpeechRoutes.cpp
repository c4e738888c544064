// SPDX-License-Identifier: GPL-3.0-or-later
#include "SpeechRoutes.h"

#include "AnswerEncoder.h"
#include "BearerToken.h"
#include "BodyMeter.h"
#include "DevControlRoutes.h"
#include "JsonResponse.h"
#include "PacedBody.h"
#include "SpeechRequest.h"
#include "Synthesizer.h"

#include <httplib.h>

#include <QJsonArray>
#include <QString>
#include <QStringList>

#include <algorithm>
#include <exception>
#include <utility>

SpeechRoutes::SpeechRoutes(const Options &options, Synthesizer &synthesizer, AccountState &account,
                           const StopFlag &stop)
    : m_synthesizer(synthesizer)
    , m_account(account)
    , m_stop(stop)
    , m_openaiKey(options.openaiKey)
    , m_ttfb(options.ttfbMs)
    , m_pace(options.pace)
    , m_failStatus(options.failStatus)
    , m_cutAfterBytes(options.cutAfterBytes)
    , m_options(options)
{}

void SpeechRoutes::install(httplib::Server &server)
{
    server.Post("/v1/audio/speech", [this](const httplib::Request &request, httplib::Response &response) {
        handle(request, response, Backend::OpenAI);
    });
    server.Post("/api/tts/stream", [this](const httplib::Request &request, httplib::Response &response) {
        handle(request, response, Backend::Service);
    });
    if (!m_options.voices.empty()) {
        server.Get("/v1/audio/voices", [this](const httplib::Request &, httplib::Response &response) {
            QJsonArray voices;
            for (const std::string &voice : m_options.voices)
                voices.append(QString::fromStdString(voice));
            setJson(response, 200, {{"voices", voices}});
        });
    }
    if (!m_options.models.empty()) {
        server.Get("/v1/models", [this](const httplib::Request &, httplib::Response &response) {
            QJsonArray models;
            for (const std::string &model : m_options.models)
                models.append(QJsonObject{{"id", QString::fromStdString(model)}, {"object", "model"}});
            setJson(response, 200, {{"object", "list"}, {"data", models}});
        });
    }
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
    const bool service = backend == Backend::Service;
    if (DevControlRoutes::answeredWithInjectedFailure(
            m_account, service ? AccountState::Route::Tts : AccountState::Route::Speech, response) ||
        !authorise(request, response, backend) || (service && !hasBalance(response))) {
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
    if (!service && refusedAsSelfHosted(speech, request.body, response)) {
        waitForHead();
        return;
    }
    // OpenAI's limit, in code points (what its server counts); the service takes any length.
    if (!service && QString::fromStdString(speech.input).toUcs4().size() > kOpenAIInputLimit) {
        setJsonError(response, 400,
                     "String should have at most " + std::to_string(kOpenAIInputLimit) + " characters",
                     "invalid_request_error", "input", "string_above_max_length");
        waitForHead();
        return;
    }

    std::vector<std::int16_t> samples;
    EncodedAnswer answer;
    try {
        samples = m_synthesizer.synthesize(speech.input, speech.voice,
                                           service ? Synthesizer::outputRateHz : m_options.audioRateHz);
        if (!service)
            answer = EncodedAnswer::encode(samples, m_options);
    } catch (const std::exception &error) {
        setJsonError(response, 500, error.what(), "server_error");
        waitForHead();
        return;
    }
    // Everything that takes time happens before the wait, so that the head leaves on time.
    PacedBody body =
        service ? PacedBody(samples, m_pace, m_cutAfterBytes, m_stop)
                : PacedBody(m_options.noAudio ? std::string() : std::move(answer.bytes), answer.headerBytes,
                            answer.bytesPerSecond, m_options.pieceMs, m_pace, m_cutAfterBytes, m_stop);
    if (!waitForHead()) {
        setJsonError(response, 503, "The server is shutting down.", "server_error");
        return;
    }
    response.status = 200;
    BodyMeter::beginStream();
    if (!service) {
        response.set_chunked_content_provider(answer.contentType, std::move(body));
        return;
    }
    body.onEnd([&account = m_account](std::uint64_t bytesSent) {
        const auto perSecond = static_cast<std::uint64_t>(PacedBody::bytesPerSecond);
        account.recordNarration(static_cast<std::int64_t>((bytesSent + perSecond / 2) / perSecond));
    });
    response.set_chunked_content_provider("audio/pcm", body, [body](bool) mutable { body.finish(); });
}

bool SpeechRoutes::refusedAsSelfHosted(const SpeechRequest &speech, const std::string &body,
                                       httplib::Response &response) const
{
    const auto detail = [&response](int status, const QJsonValue &value) {
        setJson(response, status, {{"detail", value}});
    };
    if (!m_options.voices.empty() &&
        std::find(m_options.voices.begin(), m_options.voices.end(), speech.voice) == m_options.voices.end()) {
        QStringList voices;
        for (const std::string &voice : m_options.voices)
            voices << QString::fromStdString(voice);
        detail(400, QStringLiteral("Voice '%1' not found. Available voices: %2")
                        .arg(QString::fromStdString(speech.voice), voices.join(QStringLiteral(", "))));
        return true;
    }
    if (m_options.maxInput && QString::fromStdString(speech.input).size() > *m_options.maxInput) {
        detail(422, QJsonArray{QJsonObject{
                        {"loc", QJsonArray{"body", "input"}},
                        {"msg",
                         QStringLiteral("String should have at most %1 characters").arg(*m_options.maxInput)},
                        {"type", "string_too_long"}}});
        return true;
    }
    if (m_options.refuseInstructions &&
        jsonObjectBody(body).value_or(QJsonObject()).contains("instructions")) {
        detail(400, QStringLiteral("Unsupported parameter: 'instructions'."));
        return true;
    }
    return false;
}

bool SpeechRoutes::hasBalance(httplib::Response &response) const
{
    if (m_account.balanceSeconds() > 0)
        return true;
    QJsonObject error = errorCode("insufficient_balance", "No narration time left: buy more to go on.");
    error.insert("minutes_remaining", 0);
    setJson(response, 402, error);
    return false;
}

bool SpeechRoutes::authorise(const httplib::Request &request, httplib::Response &response,
                             Backend backend) const
{
    const std::optional<std::string> token = bearerToken(request);
    if (backend == Backend::OpenAI) {
        if (m_options.keyless)
            return true;
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
    if (!m_account.verify(*token)) {
        setJsonError(response, 401, "The access token is invalid or has expired.", "authentication_error", {},
                     "invalid_token");
        return false;
    }
    return true;
}
