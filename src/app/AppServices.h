// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

class SpeechManager;

// Builds the process-wide managers from the production services and installs them as the shared
// instances. Called once at start, on the GUI thread.
SpeechManager &createSharedSpeechManager();
