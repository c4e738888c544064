// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QtGlobal>

#include <algorithm>
#include <array>
#include <cstddef>
#include <optional>

// Which narration frames went to which device frames, for the audio the device still holds: the heard
// position is found by looking up the device frame being played now. Render side only.
class RenderHistory
{
public:
    static constexpr std::size_t kSpans = 1024;

    struct Span
    {
        qint64 deviceStart;
        qint64 deviceEnd;
        qint64 narrationStart;
        qint64 narrationEnd;
    };

    void clear() { m_count = 0; }

    void push(const Span &span)
    {
        if (span.deviceEnd <= span.deviceStart)
            return;
        if (m_count > 0) {
            Span &last = m_spans[(m_next + kSpans - 1) % kSpans];
            const bool bothSilent =
                last.narrationStart == last.narrationEnd && span.narrationStart == span.narrationEnd;
            if (bothSilent && last.deviceEnd == span.deviceStart &&
                last.narrationEnd == span.narrationStart) {
                last.deviceEnd = span.deviceEnd;
                return;
            }
        }
        m_spans[m_next] = span;
        m_next = (m_next + 1) % kSpans;
        m_count = std::min(m_count + 1, kSpans);
    }

    std::optional<qint64> narrationAt(qint64 deviceFrame) const
    {
        if (m_count == 0)
            return std::nullopt;
        const Span *oldest = nullptr;
        for (std::size_t i = 1; i <= m_count; ++i) {
            const Span &s = m_spans[(m_next + kSpans - i) % kSpans];
            if (i == 1 && deviceFrame >= s.deviceEnd)
                return s.narrationEnd;
            if (deviceFrame >= s.deviceStart)
                return s.narrationStart + (deviceFrame - s.deviceStart) *
                                              (s.narrationEnd - s.narrationStart) /
                                              (s.deviceEnd - s.deviceStart);
            oldest = &s;
        }
        return oldest->narrationStart;
    }

private:
    std::array<Span, kSpans> m_spans{};
    std::size_t m_next = 0;
    std::size_t m_count = 0;
};
