// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QList>

// The first-run flow's steps, in the order they first show.
enum class OnboardingStep {
    welcome = 0,
    signIn = 1,
    freeMinutes = 2,
    permissions = 3,
    tutorial = 4,
    pricing = 5,
    purchaseConfirmation = 6,
    completion = 7,
};

const QList<OnboardingStep> &allOnboardingSteps();
