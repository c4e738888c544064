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

    // A user-perceived character is one: a letter with its accent, a line break of CR and LF.
    void characters()
    {
        QCOMPARE(characterCount(QStringLiteral("abc")), qint64(3));
        QCOMPARE(characterCount(QStringLiteral("e\u0301")), qint64(1));
        QCOMPARE(characterCount(QStringLiteral("a\r\nb")), qint64(3));
    }

    // Characters per second at 1×, divided by the speed, which counts as at least 0.1.
    void estimate()
    {
        const std::tuple<int, float, double> rows[] = {
            {660, 1.0f, 40.0}, {660, 2.0f, 20.0}, {1, 2.0f, 1.0 / 6.0 / 2.75 / 2.0}, {660, 0.0f, 400.0}};
        for (const auto &[characters, speed, seconds] : rows)
            QVERIFY(qAbs(estimatedDuration(QString(characters, u'x'), speed) - seconds) < 1e-9);
    }
};

QTEST_APPLESS_MAIN(TestNarrationText)
#include "tst_narrationtext.moc"
