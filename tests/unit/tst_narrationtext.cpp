// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/NarrationText.h"
#include "speech/TextPieces.h"

#include <QTest>
#include <QTextBoundaryFinder>

using namespace NarrationText;

namespace {

QString sentences(qsizetype length)
{
    QString text;
    while (text.size() < length)
        text += u"Sentence %1 is here. "_qs.arg(text.size() % 1000, 3, 10, QChar(u'0'));
    return text.left(length);
}

} // namespace

class TestNarrationText : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // The text, its normalized form (lower case, whitespace runs as one space) and its comparable form
    // (letters, marks and digits only).
    void forms()
    {
        const std::tuple<const char *, const char *, const char *> rows[] = {
            {"  Hello \t\n  World ", "hello world", "hello world"},
            {"Hello,  World!", "hello, world!", "hello world"},
            {"   \n\t ", "", ""},
            {"\u2022 Item one", "\u2022 item one", " item one"}, // a leading symbol keeps a space
            {"Go \U0001F680 now", "go \U0001F680 now", "go now"},
            {"Cafe\u0301 Ü", "cafe\u0301 ü", "cafe\u0301 ü"},
            {"Привет, мир! 你好。", "привет, мир! 你好。", "привет мир 你好"},
            {"Room 101.", "room 101.", "room 101"},
            {"a\u00a0\u00a0b", "a b", "a b"}}; // no-break spaces collapse
        for (const auto &[text, normalized, comparable] : rows) {
            QCOMPARE(normalizedText(QString::fromUtf8(text)), QString::fromUtf8(normalized));
            QCOMPARE(comparableText(QString::fromUtf8(text)), QString::fromUtf8(comparable));
        }
    }

    // A user-perceived character is one: a letter with its accents, an emoji with its skin tone, a line
    // break of CR and LF.
    void characters()
    {
        QCOMPARE(characterCount(u"abc"_qs), qint64(3));
        QCOMPARE(characterCount(QStringLiteral("Hi 👋🏽, Zoë\u0308!")), qint64(10));
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

    // The pieces a long text is sent in.
    void split_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("limit");
        QTest::addColumn<QStringList>("expected"); // empty: only the count is known
        QTest::addColumn<int>("count");

        const QString emoji = QStringLiteral("\U0001F600");
        const QString accented = QStringLiteral("e\u0301");
        QTest::newRow("at sentence ends") << u"One two. Three four. Five six."_qs << 20
                                          << QStringList{"One two. ", "Three four. ", "Five six."} << 3;
        QTest::newRow("not after an abbreviation")
            << u"Hi there. Dr. Smith came."_qs << 20 << QStringList{"Hi there. ", "Dr. Smith came."} << 2;
        QTest::newRow("long sentence at words") << u"alpha beta gamma delta epsilon"_qs << 12
                                                << QStringList{"alpha beta ", "gamma delta ", "epsilon"} << 3;
        QTest::newRow("long word at graphemes") << accented.repeated(5) << 3 << QStringList(5, accented) << 5;
        QTest::newRow("surrogate pairs are one character")
            << emoji.repeated(4) << 4 << QStringList{emoji.repeated(4)} << 1;
        QTest::newRow("pairs cut whole")
            << emoji.repeated(4) << 3 << QStringList{emoji.repeated(3), emoji} << 2;
        QTest::newRow("exactly 4,096") << sentences(4096) << 4096 << QStringList{sentences(4096)} << 1;
        QTest::newRow("4,096 emoji") << emoji.repeated(4096) << 4096 << QStringList{} << 1;
        QTest::newRow("4,097") << sentences(4097) << 4096 << QStringList{} << 2;
        QTest::newRow("10,000") << sentences(10000) << 4096 << QStringList{} << 3;
    }

    void split()
    {
        QFETCH(QString, text);
        QFETCH(int, limit);
        QFETCH(QStringList, expected);

        const QStringList pieces = TextPieces::split(text, limit);
        if (!expected.isEmpty())
            QCOMPARE(pieces, expected);
        QTEST(int(pieces.size()), "count");
        QCOMPARE(pieces.join(QString()), text);
        QTextBoundaryFinder graphemes(QTextBoundaryFinder::Grapheme, text);
        QTextBoundaryFinder sentenceEnds(QTextBoundaryFinder::Sentence, text);
        qsizetype at = 0;
        for (const QString &piece : pieces) {
            QVERIFY2(TextPieces::codePointCount(piece) <= limit, qPrintable(piece.left(40)));
            at += piece.size();
            graphemes.setPosition(at);
            QVERIFY(graphemes.isAtBoundary());
            // Sentences of the long rows are far shorter than a piece: every cut is a sentence end.
            if (limit == 4096) {
                sentenceEnds.setPosition(at);
                QVERIFY(sentenceEnds.isAtBoundary());
            }
        }
    }

    void dropsBlankPieces()
    {
        const QStringList pieces = TextPieces::split(u"Hello there."_qs + QString(30, u' ') + u"Bye."_qs, 12);
        QCOMPARE(pieces.size(), 2);
        QCOMPARE(pieces.first(), u"Hello there."_qs);
        QCOMPARE(pieces.last().trimmed(), u"Bye."_qs);
    }
};

QTEST_GUILESS_MAIN(TestNarrationText)
#include "tst_narrationtext.moc"
