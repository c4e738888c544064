// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/NarrationText.h"

#include <QTest>

using namespace NarrationText;

class TestNarrationText : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void forms_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("normalized");
        QTest::addColumn<QString>("comparable");

        const auto row = [](const char *name, const char *text, const char *normalized,
                            const char *comparable) {
            QTest::newRow(name) << QString::fromUtf8(text) << QString::fromUtf8(normalized)
                                << QString::fromUtf8(comparable);
        };
        row("plain", "Hello World", "hello world", "hello world");
        row("whitespace runs", "  Hello \t\n  World ", "hello world", "hello world");
        row("punctuation", "Hello,  World!", "hello, world!", "hello world");
        row("only spaces", "   \n\t ", "", "");
        row("leading symbol keeps a space", "\u2022 Item one", "\u2022 item one", " item one");
        row("emoji dropped", "Go \U0001F680 now", "go \U0001F680 now", "go now");
        row("accents and marks kept", "Cafe\u0301 Ü", "cafe\u0301 ü", "cafe\u0301 ü");
        row("other scripts", "Привет, мир! 你好。", "привет, мир! 你好。", "привет мир 你好");
        row("digits", "Room 101.", "room 101.", "room 101");
        row("no-break space collapses", "a\u00a0\u00a0b", "a b", "a b");
    }

    void forms()
    {
        QFETCH(QString, text);
        QFETCH(QString, normalized);
        QFETCH(QString, comparable);
        QCOMPARE(normalizedText(text), normalized);
        QCOMPARE(comparableText(text), comparable);
    }

    void characters_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<qint64>("count");

        QTest::newRow("ascii") << "abc" << qint64(3);
        QTest::newRow("combining accent") << "e\u0301" << qint64(1);
        QTest::newRow("CRLF is one") << "a\r\nb" << qint64(3);
    }

    void characters()
    {
        QFETCH(QString, text);
        QFETCH(qint64, count);
        QCOMPARE(characterCount(text), count);
    }

    void estimate_data()
    {
        QTest::addColumn<int>("characters");
        QTest::addColumn<float>("speed");
        QTest::addColumn<double>("seconds");

        QTest::newRow("660 at 1.0") << 660 << 1.0f << 40.0;
        QTest::newRow("660 at 2.0") << 660 << 2.0f << 20.0;
        QTest::newRow("one at 2.0") << 1 << 2.0f << 1.0 / 6.0 / 2.75 / 2.0;
        QTest::newRow("speed floor") << 660 << 0.0f << 400.0;
    }

    void estimate()
    {
        QFETCH(int, characters);
        QFETCH(float, speed);
        QFETCH(double, seconds);
        QVERIFY(qAbs(estimatedDuration(QString(characters, u'x'), speed) - seconds) < 1e-9);
    }
};

QTEST_APPLESS_MAIN(TestNarrationText)
#include "tst_narrationtext.moc"
