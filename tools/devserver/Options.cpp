// SPDX-License-Identifier: GPL-3.0-or-later
#include "Options.h"

#include <charconv>
#include <cmath>
#include <functional>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string_view>

namespace {

template<typename Number> std::string show(Number value)
{
    std::ostringstream text;
    text << value;
    return text.str();
}

template<typename Number>
Number parseNumber(std::string_view name, std::string_view text, Number min, Number max)
{
    Number value{};
    const auto *end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (text.empty() || ec != std::errc() || ptr != end || !(value >= min && value <= max)) {
        throw std::invalid_argument(std::string(name) + ": expected a number from " + show(min) + " to " +
                                    show(max) + ", got '" + std::string(text) + "'");
    }
    return value;
}

std::string nonEmpty(std::string_view name, std::string_view text)
{
    if (text.empty())
        throw std::invalid_argument(std::string(name) + ": must not be empty");
    return std::string(text);
}

std::vector<std::string> commaList(std::string_view name, std::string_view text)
{
    std::vector<std::string> items;
    for (std::size_t at = 0; at <= text.size();) {
        const std::size_t comma = std::min(text.find(',', at), text.size());
        if (comma > at)
            items.emplace_back(text.substr(at, comma - at));
        at = comma + 1;
    }
    if (items.empty())
        throw std::invalid_argument(std::string(name) + ": expected names separated by commas");
    return items;
}

} // namespace

Options Options::parse(const std::vector<std::string> &args)
{
    Options options;
    using Setter = std::function<void(std::string_view)>;
    const std::map<std::string_view, Setter> withValue = {
        {"--port", [&](auto v) { options.port = parseNumber<int>("--port", v, 0, 65535); }},
        {"--synth",
         [&](auto v) {
             if (v == "espeak")
                 options.synth = Synth::Espeak;
             else if (v == "sine")
                 options.synth = Synth::Sine;
             else
                 throw std::invalid_argument("--synth: expected 'espeak' or 'sine', got '" + std::string(v) +
                                             "'");
         }},
        // Below the Nyquist frequency of 24 kHz audio, or the tone aliases.
        {"--sine-hz", [&](auto v) { options.sineHz = parseNumber<double>("--sine-hz", v, 1.0, 11999.0); }},
        {"--ttfb-ms", [&](auto v) { options.ttfbMs = parseNumber<int>("--ttfb-ms", v, 0, 600000); }},
        {"--pace", [&](auto v) { options.pace = parseNumber<double>("--pace", v, 0.0, 1000.0); }},
        {"--openai-key", [&](auto v) { options.openaiKey = nonEmpty("--openai-key", v); }},
        {"--fail-status",
         [&](auto v) { options.failStatus = parseNumber<int>("--fail-status", v, 400, 599); }},
        {"--cut-after",
         [&](auto v) {
             options.cutAfterBytes = parseNumber<std::uint64_t>("--cut-after", v, 0, std::uint64_t{1} << 40);
         }},
        {"--log", [&](auto v) { options.logPath = nonEmpty("--log", v); }},
        {"--tls-cert", [&](auto v) { options.tlsCertPath = nonEmpty("--tls-cert", v); }},
        {"--tls-key", [&](auto v) { options.tlsKeyPath = nonEmpty("--tls-key", v); }},
        {"--audio-format",
         [&](auto v) {
             const std::map<std::string_view, AudioFormat> formats{{"pcm", AudioFormat::Pcm},
                                                                   {"wav", AudioFormat::Wav},
                                                                   {"mp3", AudioFormat::Mp3},
                                                                   {"ogg", AudioFormat::Ogg},
                                                                   {"flac", AudioFormat::Flac}};
             const auto format = formats.find(v);
             if (format == formats.end())
                 throw std::invalid_argument("--audio-format: expected pcm, wav, mp3, ogg or flac, got '" +
                                             std::string(v) + "'");
             options.audioFormat = format->second;
         }},
        {"--audio-rate",
         [&](auto v) { options.audioRateHz = parseNumber<int>("--audio-rate", v, 8000, 48000); }},
        {"--voices", [&](auto v) { options.voices = commaList("--voices", v); }},
        {"--models", [&](auto v) { options.models = commaList("--models", v); }},
        {"--max-input", [&](auto v) { options.maxInput = parseNumber<int>("--max-input", v, 1, 1'000'000); }},
        {"--piece-ms", [&](auto v) { options.pieceMs = parseNumber<int>("--piece-ms", v, 1, 1000); }},
        {"--content-type", [&](auto v) { options.contentType = nonEmpty("--content-type", v); }},
        {"--anon-key", [&](auto v) { options.anonKey = nonEmpty("--anon-key", v); }},
        {"--token-ttl",
         [&](auto v) {
             options.tokenTtlSeconds = parseNumber<std::int64_t>("--token-ttl", v, 1, 31'536'000);
         }},
        {"--user-email", [&](auto v) { options.userEmail = nonEmpty("--user-email", v); }},
        {"--fail-refresh",
         [&](auto v) { options.failRefresh = parseNumber<int>("--fail-refresh", v, 0, 1'000'000); }},
        {"--appcast-version", [&](auto v) { options.appcastVersion = nonEmpty("--appcast-version", v); }},
        {"--appcast-fail",
         [&](auto v) { options.appcastFailStatus = parseNumber<int>("--appcast-fail", v, 400, 599); }},
        {"--balance-seconds",
         [&](auto v) {
             options.balanceSeconds = parseNumber<std::int64_t>("--balance-seconds", v, 0, 1'000'000'000);
         }},
    };
    const std::map<std::string_view, Setter> flags = {
        {"--drop-before-head", [&](auto) { options.dropBeforeHead = true; }},
        {"--wav-unknown-sizes", [&](auto) { options.wavUnknownSizes = true; }},
        {"--no-audio", [&](auto) { options.noAudio = true; }},
        {"--keyless", [&](auto) { options.keyless = true; }},
        {"--refuse-instructions", [&](auto) { options.refuseInstructions = true; }},
        {"--auto-consent", [&](auto) { options.autoConsent = true; }},
        {"--help", [&](auto) { options.showHelp = true; }},
        {"-h", [&](auto) { options.showHelp = true; }},
    };

    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string_view arg = args[i];
        std::optional<std::string_view> inlineValue;
        if (const auto eq = arg.find('='); arg.starts_with("--") && eq != std::string_view::npos) {
            inlineValue = arg.substr(eq + 1);
            arg = arg.substr(0, eq);
        }
        if (const auto flag = flags.find(arg); flag != flags.end()) {
            if (inlineValue)
                throw std::invalid_argument(std::string(arg) + ": takes no value");
            flag->second({});
        } else if (const auto option = withValue.find(arg); option != withValue.end()) {
            if (inlineValue) {
                option->second(*inlineValue);
            } else {
                if (i + 1 >= args.size())
                    throw std::invalid_argument(std::string(arg) + ": missing value");
                option->second(args[++i]);
            }
        } else {
            throw std::invalid_argument("unknown option '" + std::string(arg) + "' (try --help)");
        }
    }
    if (options.tlsCertPath.empty() != options.tlsKeyPath.empty())
        throw std::invalid_argument("--tls-cert and --tls-key go together");
    if (!options.tlsCertPath.empty() && options.dropBeforeHead)
        throw std::invalid_argument("--drop-before-head serves plain http only");
    if (options.sineHz * 2 >= options.audioRateHz)
        throw std::invalid_argument("--sine-hz: must be below half of --audio-rate");
    return options;
}

std::string Options::usage()
{
    return R"(Usage: quillvox-devserver [options]

Plays the remote speech services on 127.0.0.1 for tests, benchmarks and offline use.
The first line on standard output is "listening on http://127.0.0.1:PORT" (https with --tls-cert).

  --port N             port to listen on; 0 (default) picks a free one
  --synth espeak|sine  espeak-ng speech (default) or a pure tone as long as that speech
  --sine-hz HZ         frequency of the tone (default 440)
  --ttfb-ms N          the response head leaves no earlier than N ms after the request
                       arrived (default 0)
  --pace X             stream the body at X times real time; 0 = as fast as possible
                       (default 1)
  --openai-key K       the key /v1/audio/speech accepts as a Bearer token (default "local")
  --fail-status CODE   answer every speech request with CODE (400-599) and a JSON error
  --cut-after BYTES    close the connection after BYTES bytes of a speech body
  --drop-before-head   read every request and close its connection without answering
  --log FILE           append one JSON line per request when its response has ended
  --tls-cert FILE      serve HTTPS with this PEM certificate chain (and --tls-key)
  --tls-key FILE       the PEM private key of --tls-cert

What /v1/audio/speech answers with, as self-hosted servers do (the service always sends 24 kHz PCM):
  --audio-format F     pcm (default), wav, mp3, ogg (Vorbis) or flac
  --audio-rate HZ      the audio's sample rate, 8000-48000 (default 24000)
  --wav-unknown-sizes  WAV with 0xFFFFFFFF sizes, as a streaming writer sends it
  --content-type TYPE  the Content-Type sent (default the format's own: audio/pcm, with ";rate=N"
                       when not 24000, audio/wav, audio/mpeg, audio/ogg, audio/flac)
  --piece-ms N         N ms of audio a piece of the body (default 50)
  --voices A,B         GET /v1/audio/voices lists these ({"voices": [...]}), and speech refuses any
                       other voice with 400 and the list, as Kokoro-FastAPI does
  --models A,B         GET /v1/models lists these (OpenAI's shape); without it both lists are 404
  --keyless            /v1/audio/speech takes requests without a key
  --max-input N        refuse an input over N characters with 422, as a pydantic server does
  --refuse-instructions  refuse a request with "instructions" with 400
  --no-audio           answer 200 with the Content-Type and an empty body
                       (--cut-after 0 drops the connection after the head instead)

Account (all state in memory, lost at exit):
  --anon-key KEY       the key the auth backend wants in "apikey" (default
                       "quillvox-dev-anon-key")
  --token-ttl SECONDS  life of an access token (default 3600)
  --auto-consent       /auth/v1/authorize redirects at once instead of showing a sign-in page
  --user-email EMAIL   the one user's email (default "reader@example.com")
  --fail-refresh N     the next N token refreshes answer 400
  --balance-seconds N  starting balance of narration seconds (default 1200)

Updates:
  --appcast-version V  the version /appcast.xml advertises (default 0.1.0)
  --appcast-fail CODE  answer /appcast.xml with CODE (400-599)

  -h, --help           show this text

Speech: POST /v1/audio/speech (an input of at most 4096 characters, as OpenAI's), POST /api/tts/stream
  (a valid access token; charges the seconds streamed), GET /health.
Auth backend: GET /auth/v1/authorize?provider=google|apple&redirect_to=URL, GET /auth/v1/consent,
  POST /auth/v1/token?grant_type=refresh_token, GET /auth/v1/user.
Account service: GET /api/credits/balance, GET /api/credits/usage?period=week|month|all,
  POST /api/auth/generate-code, GET /api/auth/token-exchange?code=C&next=PATH,
  GET /api/credits/purchase-redirect?package=NAME, GET /purchase, GET /auth/app-callback.
Test control (no auth): POST /dev/balance {"seconds":N},
  POST /dev/fail {"route":"refresh|user|balance|usage|generate-code|tts|speech","status":S,"count":N,
    "after":N} (the "after" requests that come first still pass),
  GET /dev/state.
Updates: GET /appcast.xml (an RSS appcast with one item).
SIGTERM or SIGINT ends the server with exit code 0.
)";
}
