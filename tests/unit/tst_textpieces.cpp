// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/TextPieces.h"

#include <QTest>
#include <QTextBoundaryFinder>

namespace {

QString sentences(qsizetype length)
{
    QString text;
    while (text.size() < length)
        text += QStringLiteral("Sentence %1 is here. ").arg(text.size() % 1000, 3, 10, QChar(u'0'));
    return text.left(length);
}

} // namespace

class TestTextPieces : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void split_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("limit");
        QTest::addColumn<QStringList>("expected"); // empty: only the count is known
        QTest::addColumn<int>("count");

        const QString emoji = QStringLiteral("\U0001F600");
        const QString accented = QStringLiteral("e\u0301");
        QTest::newRow("at sentence ends") << QStringLiteral("One two. Three four. Five six.") << 20
                                          << QStringList{"One two. ", "Three four. ", "Five six."} << 3;
        QTest::newRow("long sentence at words") << QStringLiteral("alpha beta gamma delta epsilon") << 12
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
        QFETCH(int, count);

        const QStringList pieces = TextPieces::split(text, limit);
        if (!expected.isEmpty())
            QCOMPARE(pieces, expected);
        QCOMPARE(pieces.size(), count);
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
        const QString text = QStringLiteral("Hello there.") + QString(30, u' ') + QStringLiteral("Bye.");
        const QStringList pieces = TextPieces::split(text, 12);
        QVERIFY(!pieces.isEmpty());
        for (const QString &piece : pieces)
            QVERIFY(!piece.trimmed().isEmpty());
        QCOMPARE(pieces.first(), QStringLiteral("Hello there."));
        QCOMPARE(pieces.last().trimmed(), QStringLiteral("Bye."));
    }
};

QTEST_GUILESS_MAIN(TestTextPieces)
#include "tst_textpieces.moc"
