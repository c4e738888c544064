// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <optional>
#include <vector>

// The frequency of a tone at rateHz, from the first and last upward zero crossing of the whole clip,
// each interpolated between its two samples; 0 for fewer than two crossings.
template<typename Sample> double toneFrequency(const std::vector<Sample> &s, double rateHz)
{
    std::optional<double> first;
    double last = 0;
    int crossings = 0;
    for (size_t i = 1; i < s.size(); ++i) {
        if (s[i - 1] < 0 && s[i] >= 0) {
            const double at = double(i - 1) + s[i - 1] / (s[i - 1] - s[i]);
            if (!first)
                first = at;
            else
                ++crossings;
            last = at;
        }
    }
    return first && crossings > 0 ? crossings * rateHz / (last - *first) : 0;
}
