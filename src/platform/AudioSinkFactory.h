// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "core/DeploymentConfig.h"
#include "platform/AudioSink.h"

#include <memory>

// The output the deployment asks for: PulseAudio, or the real-time null sink (no sound, same pace).
std::unique_ptr<AudioSink> createAudioSink(DeploymentConfig::AudioOutput output);
