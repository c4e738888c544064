// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

#include <optional>

class QApplication;

// The application proper: the narration controller, selection capture and the six global shortcuts,
// listening for requests from later `quillvox` invocations. Runs until quit.
int runNormalOperation(QApplication &app, const std::optional<QString> &startUrl);
