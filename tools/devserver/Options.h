// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// The command line of quillvox-devserver. Every fault is off unless asked for, so that a bare start
// behaves like a healthy server.
struct Options
{
    enum class Synth { Espeak, Sine };
    enum class AudioFormat { Pcm, Wav, Mp3, Ogg, Flac };

    int port = 0;
    Synth synth = Synth::Espeak;
    double sineHz = 440.0;
    int ttfbMs = 0;
    double pace = 1.0;
    std::string openaiKey = "local";
    std::optional<int> failStatus;
    std::optional<std::uint64_t> cutAfterBytes;
    bool dropBeforeHead = false;
    // What /v1/audio/speech answers with, as self-hosted servers do; the service always sends 24 kHz PCM.
    AudioFormat audioFormat = AudioFormat::Pcm;
    int audioRateHz = 24000;
    bool wavUnknownSizes = false;
    std::string contentType; // empty: the format's own
    bool noAudio = false;
    int pieceMs = 50;
    // As self-hosted servers list and check: their voices and models, no key, an input limit.
    std::vector<std::string> voices;
    std::vector<std::string> models;
    bool keyless = false;
    std::optional<int> maxInput;
    bool refuseInstructions = false;
    std::string logPath;
    // HTTPS with this certificate chain and key (PEM files), both or neither.
    std::string tlsCertPath;
    std::string tlsKeyPath;

    // The auth backend and the account service.
    std::string anonKey = "quillvox-dev-anon-key";
    std::int64_t tokenTtlSeconds = 3600;
    bool autoConsent = false;
    std::string userEmail = "reader@example.com";
    int failRefresh = 0;
    std::int64_t balanceSeconds = 1200;

    // The update feed.
    std::string appcastVersion = "0.1.0";
    std::optional<int> appcastFailStatus;

    bool showHelp = false;

    // Throws std::invalid_argument with a message meant for the person who typed the command.
    static Options parse(const std::vector<std::string> &args);
    static std::string usage();
};
