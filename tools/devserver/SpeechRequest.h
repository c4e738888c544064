// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <variant>

// The JSON body both speech routes accept. Unknown members are ignored, as a real server does.
struct SpeechRequest
{
    struct Invalid
    {
        std::string message;
        // The offending member, empty when the body as a whole is at fault.
        std::string param;
    };

    std::string model;
    std::string input;
    std::string voice;
    std::string responseFormat;
    std::optional<std::string> instructions;

    static std::variant<SpeechRequest, Invalid> parse(std::string_view body);
};
