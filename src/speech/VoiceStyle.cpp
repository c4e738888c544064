// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/VoiceStyle.h"

std::optional<VoiceStyle> VoiceStyle::fromRawValue(const QString &text)
{
    for (VoiceStyle style : allCases()) {
        if (style.rawValue() == text)
            return style;
    }
    return std::nullopt;
}

const QList<VoiceStyle> &VoiceStyle::allCases()
{
    static const QList<VoiceStyle> cases{Standard,     Calm,     Friendly, Professional,
                                         BedtimeStory, Dramatic, Cheerful};
    return cases;
}

QString VoiceStyle::rawValue() const
{
    switch (m_case) {
    case Standard:
        return QStringLiteral("Standard");
    case Calm:
        return QStringLiteral("Calm");
    case Friendly:
        return QStringLiteral("Friendly");
    case Professional:
        return QStringLiteral("Professional");
    case BedtimeStory:
        return QStringLiteral("Bedtime Story");
    case Dramatic:
        return QStringLiteral("Dramatic");
    case Cheerful:
        return QStringLiteral("Cheerful");
    }
    Q_UNREACHABLE();
    return {};
}

QString VoiceStyle::subtitle() const
{
    switch (m_case) {
    case Standard:
        return QStringLiteral("Efficient and natural");
    case Calm:
        return QStringLiteral("Composed and reassuring");
    case Friendly:
        return QStringLiteral("Warm and approachable");
    case Professional:
        return QStringLiteral("Clear and authoritative");
    case BedtimeStory:
        return QStringLiteral("Gentle and magical");
    case Dramatic:
        return QStringLiteral("Suspenseful and intense");
    case Cheerful:
        return QStringLiteral("Upbeat and encouraging");
    }
    Q_UNREACHABLE();
    return {};
}

QString VoiceStyle::iconName() const
{
    switch (m_case) {
    case Standard:
        return QStringLiteral("bolt.fill");
    case Calm:
        return QStringLiteral("leaf.fill");
    case Friendly:
        return QStringLiteral("face.smiling.fill");
    case Professional:
        return QStringLiteral("briefcase.fill");
    case BedtimeStory:
        return QStringLiteral("moon.stars.fill");
    case Dramatic:
        return QStringLiteral("theatermasks.fill");
    case Cheerful:
        return QStringLiteral("sun.max.fill");
    }
    Q_UNREACHABLE();
    return {};
}

// Paragraphs are joined by one empty line; the dashes are em dashes.
QString VoiceStyle::instructions() const
{
    switch (m_case) {
    case Standard:
        return QStringLiteral(
            "Speak in an efficient and natural tone. Speak at a brisk, efficient pace\u2014roughly 20% "
            "faster than normal conversational speed\u2014but maintain clarity and don't sound rushed.");
    case Calm:
        return QStringLiteral(
            "Voice Affect: Calm, composed, and reassuring; project quiet authority and confidence.\n\n"
            "Tone: Sincere, empathetic, and gently authoritative.\n\n"
            "Pacing: Steady and moderate; unhurried enough to communicate care, yet efficient enough to "
            "demonstrate professionalism.\n\n"
            "Emotion: Genuine empathy and understanding; speak with warmth.\n\n"
            "Pronunciation: Clear and precise.\n\n"
            "Pauses: Brief pauses after key points, highlighting willingness to listen and support.");
    case Friendly:
        return QStringLiteral("Affect/personality: A cheerful guide.\n\n"
                              "Tone: Friendly, clear, and reassuring, creating a calm atmosphere and making "
                              "the listener feel confident and comfortable.\n\n"
                              "Pronunciation: Clear, articulate, and steady, ensuring each instruction is "
                              "easily understood while maintaining a natural, conversational flow.\n\n"
                              "Pause: Brief, purposeful pauses after key points to allow time for the "
                              "listener to process the information.\n\n"
                              "Emotion: Warm and supportive, conveying empathy and care.");
    case Professional:
        return QStringLiteral(
            "Voice: Clear, authoritative, and composed, projecting confidence and professionalism.\n\n"
            "Tone: Neutral and informative, maintaining a balance between formality and approachability.\n\n"
            "Punctuation: Structured with commas and pauses for clarity, ensuring information is digestible "
            "and well-paced.\n\n"
            "Delivery: Steady and measured, with slight emphasis on key points to highlight critical "
            "information.");
    case BedtimeStory:
        return QStringLiteral(
            "Affect: A gentle, curious narrator, guiding through content with warmth.\n\n"
            "Tone: Magical, warm, and inviting, creating a sense of wonder for listeners.\n\n"
            "Pacing: Steady and measured, with slight pauses to emphasize key moments and maintain flow.\n\n"
            "Emotion: Wonder, curiosity, and a sense of calm, with a lighthearted and positive vibe "
            "throughout.\n\n"
            "Pronunciation: Clear and precise, with an emphasis on storytelling, ensuring the words are easy "
            "to follow and pleasant to listen to.");
    case Dramatic:
        return QStringLiteral(
            "Voice Affect: Low, hushed, and suspenseful; convey tension and intrigue.\n\n"
            "Tone: Deeply serious and mysterious, maintaining an undercurrent of intensity throughout.\n\n"
            "Pacing: Slow, deliberate, pausing slightly after key moments to heighten drama.\n\n"
            "Emotion: Restrained yet intense\u2014voice should subtly tighten at key points.\n\n"
            "Emphasis: Highlight sensory descriptions to amplify atmosphere.\n\n"
            "Pronunciation: Slightly elongated vowels and softened consonants for an atmospheric effect.\n\n"
            "Pauses: Insert meaningful pauses after important phrases to enhance suspense.");
    case Cheerful:
        return QStringLiteral(
            "Personality/affect: High-energy and encouraging.\n\n"
            "Voice: Enthusiastic and bubbly, with an uplifting and motivational quality.\n\n"
            "Tone: Encouraging and playful, making content feel exciting and engaging.\n\n"
            "Dialect: Casual and upbeat, using informal phrasing.\n\n"
            "Pronunciation: Crisp and lively, with exaggerated emphasis on positive words to keep the energy "
            "high.\n\n"
            "Features: Uses motivational energy and an enthusiastic rhythm to create a sense of excitement.");
    }
    Q_UNREACHABLE();
    return {};
}

const QStringList &availableVoices()
{
    static const QStringList voices{
        QStringLiteral("marin"), QStringLiteral("cedar"), QStringLiteral("alloy"), QStringLiteral("echo"),
        QStringLiteral("fable"), QStringLiteral("nova"),  QStringLiteral("onyx"),  QStringLiteral("shimmer")};
    return voices;
}

QString defaultVoice()
{
    return QStringLiteral("marin");
}

const QList<float> &playbackSpeeds()
{
    static const QList<float> speeds{0.5f, 1.0f, 1.25f, 1.5f, 2.0f};
    return speeds;
}

float nextPlaybackSpeed(float speed)
{
    const QList<float> &speeds = playbackSpeeds();
    const qsizetype index = speeds.indexOf(speed);
    if (index < 0)
        return 1.0f;
    return speeds[(index + 1) % speeds.size()];
}

QString voiceDisplayName(const QString &voice)
{
    return voice.left(1).toUpper() + voice.mid(1);
}
