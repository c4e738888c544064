// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/FollowAlong.h"

#include <QSignalSpy>
#include <QTest>

namespace {

constexpr qint64 kNever = -1; // FollowAlong::kNever in the tables

// Runs "begin <piece> <frame>", "received <frames>" and "finish", separated by commas, against `follow`.
void apply(FollowAlong &follow, const QString &events)
{
    for (const QString &event : events.split(u',', Qt::SkipEmptyParts)) {
        const QStringList words = event.trimmed().split(u' ');
        if (words[0] == u"begin")
            follow.beginPiece(words[1].toLongLong(), words[2].toLongLong());
        else if (words[0] == u"received")
            follow.setReceivedFrames(words[1].toLongLong());
        else
            follow.finish();
    }
}

} // namespace

class TestFollowAlong : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void sentences()
    {
        const std::pair<QString, QStringList> rows[] = {
            {u"J. R. Tolkien wrote. Yes!"_qs, {"J. R. Tolkien wrote.", "Yes!"}},
            {u"Zoe\u0301 waved \U0001F44B\U0001F3FD! Then she\u0308 left \U0001F680."_qs,
             {u"Zoe\u0301 waved \U0001F44B\U0001F3FD!"_qs, u"Then she\u0308 left \U0001F680."_qs}},
            {u"  One   two.\n\nThree\tfour.  "_qs, {"One two.", "Three four."}},
            {u" \n "_qs, {}}};
        for (const auto &[text, expected] : rows) {
            FollowAlong follow;
            follow.start(text, {});
            QStringList found;
            for (qsizetype i = 0; i < follow.count(); ++i)
                found << follow.sentenceAt(i).text;
            QCOMPARE(found, expected);
        }
    }

    // Where each sentence starts, in frames, after the events. Characters are user-perceived ones.
    void placement_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("pieceLimit");
        QTest::addColumn<QString>("events");
        QTest::addColumn<QList<qint64>>("starts");
        const auto row = [](const char *name, const QString &text, int pieceLimit, const char *events,
                            const QList<qint64> &starts) {
            QTest::newRow(name) << text << pieceLimit << QString::fromLatin1(events) << starts;
        };
        const QString one = QStringLiteral("One. Two. Three.");
        // Pieces "Aa bb. Cc dd. " and "Ee ff. Gg hh.", 13 characters each without the space.
        const QString two = QStringLiteral("Aa bb. Cc dd. Ee ff. Gg hh.");
        row("one piece, complete", one, 4096, "received 16000, finish", {0, 5000, 10000});
        row("one piece, more received than estimated", one, 4096, "received 40000", {0, 12500, 25000});
        // 16 characters at 1,454.5 frames each: 23,273 frames.
        row("one piece, estimated", one, 4096, "received 4000", {0, 7273, 14546});
        row("two pieces, complete", two, 14, "received 26000, begin 1 26000, received 50000, finish",
            {0, 14000, 26000, 38923});
        row("the first piece's pace estimates the second", two, 14,
            "received 20000, begin 1 26000, received 30000", {0, 14000, 26000, 40000});
        row("neither piece known yet", two, 14, "received 20000", {0, 10769, 20000, 30182});
        row("a piece that never came", two, 14, "received 26000, finish", {0, 14000, kNever, kNever});
        row("abbreviation and decimal number", "Dr. Smith paid 3.5 euros, e.g. Tuesday. He left.", 4096,
            "received 48000, finish", {0, 40000});
        row("emoji and combining marks", "Zoe\u0301 waved \U0001F44B\U0001F3FD. Then she left.", 4096,
            "received 27000, finish", {0, 13000});
        // A sentence longer than a piece: the second piece starts inside it, so its first sentence of
        // its own is placed by its share.
        row("a piece that starts inside a sentence", "Alpha beta gamma. Ok.", 12,
            "begin 1 12000, received 22000, finish", {0, 19000});
    }

    void placement()
    {
        QFETCH(QString, text);
        QFETCH(int, pieceLimit);
        QFETCH(QString, events);
        FollowAlong follow;
        follow.start(text, TextPieces::splitRanges(text, pieceLimit));
        apply(follow, events);
        QList<qint64> placed;
        for (qsizetype i = 0; i < follow.count(); ++i)
            placed << (follow.startFrame(i) == FollowAlong::kNever ? kNever : follow.startFrame(i));
        QTEST(placed, "starts");
    }

    // The sentence follows the position wherever it jumps, announcing only changes; a sentence that is
    // placed later once a piece's length is known is left as soon as the position is before it.
    void followsThePosition()
    {
        FollowAlong follow;
        const QString text = QStringLiteral("Aa bb. Cc dd. Ee ff. Gg hh.");
        follow.start(text, TextPieces::splitRanges(text, 14));
        QSignalSpy changes(&follow, &FollowAlong::sentenceChanged);
        const std::tuple<const char *, qint64, const char *, int> rows[] = {
            {"received 20000", 0, "Aa bb.", 0},
            {"", 10768, "Aa bb.", 0},
            {"", 10769, "Cc dd.", 1},
            {"", 20000, "Ee ff.", 2},
            {"begin 1 26000", 20000, "Cc dd.", 3}, // the first piece turned out longer
            {"", 40000, "Gg hh.", 4},
            {"", 5000, "Aa bb.", 5},     // a seek back
            {"", 1000000, "Gg hh.", 6}}; // past the end
        for (const auto &[event, position, sentence, count] : rows) {
            apply(follow, QString::fromLatin1(event));
            follow.setPosition(position);
            QCOMPARE(follow.sentence(), QString::fromUtf8(sentence));
            QCOMPARE(changes.size(), count);
        }
        follow.setEnabled(false);
        QCOMPARE(follow.sentence(), QString());
        follow.clear();
        QCOMPARE(follow.currentIndex(), -1);
    }
};

QTEST_GUILESS_MAIN(TestFollowAlong)
#include "tst_followalong.moc"
