// SPDX-License-Identifier: GPL-3.0-or-later
// The speech side's rules on text: its forms and length, the pieces it is sent in, the sentence followed
// along; the speeds and styles, and the errors as shown.
#include "speech/FollowAlong.h"
#include "speech/NarrationText.h"
#include "speech/SpeechError.h"
#include "speech/TextPieces.h"
#include "speech/VoiceStyle.h"

#include <QSignalSpy>
#include <QTest>
#include <QTextBoundaryFinder>

using namespace NarrationText;

namespace {

QString manySentences(qsizetype length)
{
    QString text;
    while (text.size() < length)
        text += u"Sentence %1 is here. "_qs.arg(text.size() % 1000, 3, 10, QChar(u'0'));
    return text.left(length);
}

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
        QTest::newRow("not after an abbreviation")
            << u"Hi there. Dr. Smith came."_qs << 20 << QStringList{"Hi there. ", "Dr. Smith came."} << 2;
        QTest::newRow("long sentence at words") << u"alpha beta gamma delta epsilon"_qs << 12
                                                << QStringList{"alpha beta ", "gamma delta ", "epsilon"} << 3;
        QTest::newRow("long word at graphemes") << accented.repeated(5) << 3 << QStringList(5, accented) << 5;
        QTest::newRow("surrogate pairs are one character")
            << emoji.repeated(4) << 4 << QStringList{emoji.repeated(4)} << 1;
        QTest::newRow("pairs cut whole")
            << emoji.repeated(4) << 3 << QStringList{emoji.repeated(3), emoji} << 2;
        QTest::newRow("exactly 4,096")
            << manySentences(4096) << 4096 << QStringList{manySentences(4096)} << 1;
        QTest::newRow("4,097") << manySentences(4097) << 4096 << QStringList{} << 2;
        // More pieces than two: the component test's long narration.
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
    // placed later once a piece's length is known is left as soon as the position is before it. Switched
    // off, no sentence shows: tst_viewmodels' widget.
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
        follow.clear();
        QCOMPARE(follow.currentIndex(), -1);
    }

    // A stored or typed style is read only as it is written (its name and another case: the component
    // test's persisted choices), not trimmed.
    void fromRawValue() { QCOMPARE(VoiceStyle::fromRawValue(u"Calm "_qs), std::nullopt); }

    // The speed shortcut steps through the listed speeds and wraps; an unlisted speed goes back to 1x.
    void nextSpeed()
    {
        const std::pair<float, float> rows[] = {
            {0.5f, 1.0f}, {1.25f, 1.5f}, {2.0f, 0.5f}, {1.1f, 1.0f}, {1.2500001f, 1.0f}};
        for (const auto &[speed, next] : rows)
            QCOMPARE(nextPlaybackSpeed(speed), next);
    }

    // The errors that carry a detail: how the detail lands in the text and in the id the widget keys on; the
    // reason phrases of statuses without a detail.
    void detailedErrors()
    {
        const std::tuple<SpeechError, const char *, const char *> rows[] = {
            {SpeechError::makeAudioEngineFailure(u"Connection refused"_qs),
             "Audio engine failed: Connection refused", "audioEngineFailure-Connection refused"},
            {SpeechError::makeApiError(401, u"Unauthorized"_qs), "API error (401): Unauthorized",
             "apiError-401-Unauthorized"},
            {SpeechError::makeNetworkError(u"Host not found"_qs), "Network error: Host not found",
             "networkError-Host not found"},
            // One id whatever the balance, so that a changed figure does not show the error again.
            {SpeechError::makeInsufficientBalance(3),
             "Low balance (3 min remaining). Add more minutes to continue.", "insufficientBalance"},
            {SpeechError::makeInsufficientBalance(0),
             "Low balance (0 min remaining). Add more minutes to continue.", "insufficientBalance"}};
        for (const auto &[error, description, id] : rows) {
            QCOMPARE(error.description(), QString::fromLatin1(description));
            QCOMPARE(error.id(), QString::fromLatin1(id));
        }
        QCOMPARE((QStringList{httpReasonPhrase(429), httpReasonPhrase(499), httpReasonPhrase(599),
                              httpReasonPhrase(999)}),
                 (QStringList{"Too Many Requests", "Client Error", "Server Error", "Unknown Status"}));
    }
};

QTEST_GUILESS_MAIN(TestNarrationText)
#include "tst_narrationtext.moc"
