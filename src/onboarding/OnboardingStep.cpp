// SPDX-License-Identifier: GPL-3.0-or-later
#include "onboarding/OnboardingStep.h"

const QList<OnboardingStep> &allOnboardingSteps()
{
    static const QList<OnboardingStep> steps{
        OnboardingStep::welcome,
        OnboardingStep::signIn,
        OnboardingStep::freeMinutes,
        OnboardingStep::permissions,
        OnboardingStep::tutorial,
        OnboardingStep::pricing,
        OnboardingStep::purchaseConfirmation,
        OnboardingStep::completion,
    };
    return steps;
}
