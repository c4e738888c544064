// SPDX-License-Identifier: GPL-3.0-or-later
#include "app/StatusMenuState.h"

StatusMenuState StatusMenuState::compute(bool isPlaying, bool isProcessing, bool hasContent, bool isExpanded)
{
    const bool idle = !isPlaying && !isProcessing;
    StatusMenuState state;
    state.narrateOffered = idle;
    state.expandOffered = idle && !isExpanded;
    state.narrateSeparatorShown = state.narrateOffered || state.expandOffered;
    state.pauseLabel = isProcessing ? QStringLiteral("Generating...") : QStringLiteral("Pause Narration");
    state.pauseEnabled = !isProcessing && hasContent;
    state.stopEnabled = hasContent || isProcessing;
    return state;
}
