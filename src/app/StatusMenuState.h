// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

// Which of the status menu's narration items are offered (visible) and enabled, and what the pause item
// says, for one state of the speech controller and the widget. Separators stand only between groups
// with something shown; the groups after the first are always shown.
struct StatusMenuState
{
    bool narrateOffered = false;
    bool expandOffered = false;
    // The separator after "Narrate Selection" and "Expand Widget".
    bool narrateSeparatorShown = false;
    QString pauseLabel;
    bool pauseEnabled = false;
    bool stopEnabled = false;

    static StatusMenuState compute(bool isPlaying, bool isProcessing, bool hasContent, bool isExpanded);
};
