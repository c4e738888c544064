// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/VoiceStyle.h"

#include <QTest>

class TestVoiceStyle : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // A stored or typed style is read only as it is written; anything else is no style.
    void fromRawValue()
    {
        QCOMPARE(VoiceStyle::fromRawValue(u"Bedtime Story"_qs), VoiceStyle(VoiceStyle::BedtimeStory));
        QCOMPARE(VoiceStyle::fromRawValue(u"bedtime story"_qs), std::nullopt);
        QCOMPARE(VoiceStyle::fromRawValue(u"Calm "_qs), std::nullopt);
    }

    // The speed shortcut steps through the listed speeds and wraps; an unlisted speed goes back to 1x.
    void nextSpeed()
    {
        const std::pair<float, float> rows[] = {
            {0.5f, 1.0f}, {1.25f, 1.5f}, {2.0f, 0.5f}, {1.1f, 1.0f}, {1.2500001f, 1.0f}};
        for (const auto &[speed, next] : rows)
            QCOMPARE(nextPlaybackSpeed(speed), next);
    }
};

QTEST_APPLESS_MAIN(TestVoiceStyle)
#include "tst_voicestyle.moc"
