// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/AudioSinkFactory.h"

#include "platform/null/NullAudioSink.h"
#include "platform/pulse/PulseAudioSink.h"

std::unique_ptr<AudioSink> createAudioSink(DeploymentConfig::AudioOutput output)
{
    switch (output) {
    case DeploymentConfig::AudioOutput::Null:
        return std::make_unique<NullAudioSink>(NullAudioSink::Clock::RealTime);
    case DeploymentConfig::AudioOutput::Pulse:
        break;
    }
    return std::make_unique<PulseAudioSink>();
}
