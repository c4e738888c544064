// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

// Which of the status menu's narration items are offered (visible) and enabled, and what the pause item
// says, for one state of the speech controller and the widget.
struct StatusMenuState
{
    bool narrateOffered = false;
    bool expandOffered = false;
    QString pauseLabel;
    bool pauseEnabled = false;
    bool stopEnabled = false;

    static StatusMenuState compute(bool isPlaying, bool isProcessing, bool hasContent, bool isExpanded);
};
