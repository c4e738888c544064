// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/VoiceStyle.h"

#include <QTest>

class TestVoiceStyle : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // A stored or typed style is read only as it is written; anything else is no style.
    void fromRawValue_data()
    {
        QTest::addColumn<QString>("stored");
        QTest::addColumn<int>("expected"); // -1: no case

        QTest::newRow("exact") << "Bedtime Story" << int(VoiceStyle::BedtimeStory);
        QTest::newRow("lower case") << "bedtime story" << -1;
        QTest::newRow("trailing space") << "Calm " << -1;
    }

    void fromRawValue()
    {
        QFETCH(QString, stored);
        QFETCH(int, expected);
        const auto style = VoiceStyle::fromRawValue(stored);
        QCOMPARE(style.has_value(), expected >= 0);
        if (style)
            QCOMPARE(int(style->value()), expected);
    }

    // The speed shortcut steps through the listed speeds and wraps; an unlisted speed goes back to 1x.
    void nextSpeed_data()
    {
        QTest::addColumn<float>("speed");
        QTest::addColumn<float>("next");

        QTest::newRow("0.5") << 0.5f << 1.0f;
        QTest::newRow("1.25") << 1.25f << 1.5f;
        QTest::newRow("2.0 wraps") << 2.0f << 0.5f;
        QTest::newRow("not listed") << 1.1f << 1.0f;
        QTest::newRow("almost 1.25") << 1.2500001f << 1.0f;
    }

    void nextSpeed()
    {
        QFETCH(float, speed);
        QTEST(nextPlaybackSpeed(speed), "next");
    }
};

QTEST_APPLESS_MAIN(TestVoiceStyle)
#include "tst_voicestyle.moc"
