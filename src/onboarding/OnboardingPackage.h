// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QList>
#include <QString>

#include <optional>

// A bundle of minutes sold on the service's purchase page. `price` is in US cents.
struct OnboardingPackage
{
    QString id;
    QString name;
    int price = 0;
    int minutes = 0;
    double hours = 0;
    bool isPopular = false;

    bool operator==(const OnboardingPackage &) const = default;

    // The packages in display order.
    static const QList<OnboardingPackage> &all();
    static std::optional<OnboardingPackage> withId(const QString &id);

    // "8 hours", "1 hour", "2.5 hours"
    static QString hoursText(double hours);
    // "$15.00"
    static QString priceText(int cents);
};
