// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

class SelectionSource;
class SpeechManager;

// Builds the process-wide managers from the production services and installs them as the shared
// instances. Called once at start, on the GUI thread.
// `selection` is where the selection trigger reads from; none means no selection can be read.
SpeechManager &createSharedSpeechManager(SelectionSource *selection = nullptr);
