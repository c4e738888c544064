// SPDX-License-Identifier: GPL-3.0-or-later
#include "onboarding/OnboardingPackage.h"

#include <cmath>

const QList<OnboardingPackage> &OnboardingPackage::all()
{
    static const QList<OnboardingPackage> packages{
        {QStringLiteral("starter"), QStringLiteral("Starter"), 500, 150, 2.5, false},
        {QStringLiteral("popular"), QStringLiteral("Popular"), 1500, 500, 8.0, true},
        {QStringLiteral("pro"), QStringLiteral("Pro"), 3500, 1200, 20.0, false},
    };
    return packages;
}

std::optional<OnboardingPackage> OnboardingPackage::withId(const QString &id)
{
    for (const OnboardingPackage &package : all()) {
        if (package.id == id)
            return package;
    }
    return std::nullopt;
}

QString OnboardingPackage::hoursText(double hours)
{
    if (hours == std::floor(hours)) {
        const auto whole = qint64(hours);
        return QString::number(whole) + (whole == 1 ? QStringLiteral(" hour") : QStringLiteral(" hours"));
    }
    return QString::asprintf("%.1f hours", hours);
}

QString OnboardingPackage::priceText(int cents)
{
    return QStringLiteral("$%1.%2").arg(cents / 100).arg(cents % 100, 2, 10, QLatin1Char('0'));
}
