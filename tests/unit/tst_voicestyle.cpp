// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/VoiceStyle.h"

#include <QTest>

class TestVoiceStyle : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void instructions_data()
    {
        QTest::addColumn<int>("style");
        QTest::addColumn<QString>("rawValue");
        QTest::addColumn<int>("utf8Bytes");
        QTest::addColumn<int>("paragraphs");
        QTest::addColumn<int>("emDashes");

        QTest::newRow("Standard") << int(VoiceStyle::Standard) << "Standard" << 173 << 1 << 2;
        QTest::newRow("Calm") << int(VoiceStyle::Calm) << "Calm" << 447 << 6 << 0;
        QTest::newRow("Friendly") << int(VoiceStyle::Friendly) << "Friendly" << 472 << 5 << 0;
        QTest::newRow("Professional") << int(VoiceStyle::Professional) << "Professional" << 392 << 4 << 0;
        QTest::newRow("Bedtime Story") << int(VoiceStyle::BedtimeStory) << "Bedtime Story" << 477 << 5 << 0;
        QTest::newRow("Dramatic") << int(VoiceStyle::Dramatic) << "Dramatic" << 559 << 7 << 1;
        QTest::newRow("Cheerful") << int(VoiceStyle::Cheerful) << "Cheerful" << 453 << 6 << 0;
    }

    void instructions()
    {
        QFETCH(int, style);
        QFETCH(QString, rawValue);
        QFETCH(int, utf8Bytes);
        QFETCH(int, paragraphs);
        QFETCH(int, emDashes);

        const VoiceStyle s(static_cast<VoiceStyle::Case>(style));
        const QString text = s.instructions();
        QCOMPARE(s.rawValue(), rawValue);
        QCOMPARE(text.toUtf8().size(), utf8Bytes);
        QCOMPARE(text.split(QStringLiteral("\n\n")).size(), paragraphs);
        QCOMPARE(text.count(QChar(0x2014)), emDashes);
        QVERIFY(!text.contains(QStringLiteral("\n\n\n")));
        QCOMPARE(text.trimmed(), text);
        QVERIFY(!text.contains(u'\u2019')); // the apostrophe is plain ASCII
        QVERIFY(!s.subtitle().isEmpty());
        QVERIFY(!s.iconName().isEmpty());
    }

    void declarationOrder()
    {
        QStringList raw;
        for (VoiceStyle s : VoiceStyle::allCases())
            raw << s.rawValue();
        QCOMPARE(raw, QStringList({"Standard", "Calm", "Friendly", "Professional", "Bedtime Story",
                                   "Dramatic", "Cheerful"}));
        QCOMPARE(availableVoices(),
                 QStringList({"marin", "cedar", "alloy", "echo", "fable", "nova", "onyx", "shimmer"}));
        QCOMPARE(defaultVoice(), QStringLiteral("marin"));
    }

    void fromRawValue_data()
    {
        QTest::addColumn<QString>("stored");
        QTest::addColumn<int>("expected"); // -1: no case

        QTest::newRow("exact") << "Bedtime Story" << int(VoiceStyle::BedtimeStory);
        QTest::newRow("lower case") << "bedtime story" << -1;
        QTest::newRow("no space") << "BedtimeStory" << -1;
        QTest::newRow("trailing space") << "Calm " << -1;
        QTest::newRow("empty") << "" << -1;
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

    void nextSpeed_data()
    {
        QTest::addColumn<float>("speed");
        QTest::addColumn<float>("next");

        QTest::newRow("0.5") << 0.5f << 1.0f;
        QTest::newRow("1.0") << 1.0f << 1.25f;
        QTest::newRow("1.25") << 1.25f << 1.5f;
        QTest::newRow("1.5") << 1.5f << 2.0f;
        QTest::newRow("2.0 wraps") << 2.0f << 0.5f;
        QTest::newRow("not listed") << 1.1f << 1.0f;
        QTest::newRow("almost 1.25") << 1.2500001f << 1.0f;
        QTest::newRow("zero") << 0.0f << 1.0f;
    }

    void nextSpeed()
    {
        QFETCH(float, speed);
        QFETCH(float, next);
        QCOMPARE(nextPlaybackSpeed(speed), next);
    }
};

QTEST_APPLESS_MAIN(TestVoiceStyle)
#include "tst_voicestyle.moc"
