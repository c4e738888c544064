// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <functional>

class QObject;
class QString;
class SelectionSource;
class SpeechManager;

// Builds the process-wide managers from the production services and installs them as the shared
// instances. Called once at start, on the GUI thread.

// The account session (restored at once) and the balance that follows it. `log` receives their plain
// log lines; none prints them on standard output.
void createSharedAccount(std::function<void(const QString &)> log = {});
// The narration controller, on the shared account (created first when needed).
// `selection` is where the selection trigger reads from; none means no selection can be read.
SpeechManager &createSharedSpeechManager(SelectionSource *selection = nullptr);
// Calls `then` once the stored session has been checked and, when signed in, the first balance
// answer has come (whatever it said), so that a narration started then sees the real account.
void whenAccountSettled(QObject *context, std::function<void()> then);
