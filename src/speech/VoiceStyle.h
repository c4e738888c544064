// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

// The speaking style: a long instruction sent with every request. The raw value is also the label
// shown to the user and the stored form.
class VoiceStyle
{
public:
    enum Case { Standard, Calm, Friendly, Professional, BedtimeStory, Dramatic, Cheerful };

    constexpr VoiceStyle(Case c = Standard)
        : m_case(c)
    {}

    // The case whose raw value equals text exactly (case-sensitive), or nothing.
    static std::optional<VoiceStyle> fromRawValue(const QString &text);
    // Every case, in declaration order (the order of every style picker).
    static const QList<VoiceStyle> &allCases();

    Case value() const { return m_case; }
    QString rawValue() const;
    QString subtitle() const;
    QString iconName() const;
    QString instructions() const;

    friend constexpr bool operator==(VoiceStyle a, VoiceStyle b) { return a.m_case == b.m_case; }

private:
    Case m_case;
};

// The voice names, in picker order; the default is "marin".
const QStringList &availableVoices();
QString defaultVoice();
// The voice as pickers show it: "cedar" is "Cedar".
QString voiceDisplayName(const QString &voice);

// Local playback speeds, in cycling order; the default is 1.0 and the speed is never persisted.
const QList<float> &playbackSpeeds();
// The speed after `speed` in the list (wrapping 2.0 to 0.5); a value not in the list goes to 1.0.
float nextPlaybackSpeed(float speed);
