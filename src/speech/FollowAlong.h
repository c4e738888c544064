// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "speech/TextPieces.h"

#include <QList>
#include <QObject>
#include <QString>

#include <limits>
#include <optional>
#include <vector>

class UserDefaults;

// The sentence being heard, as a function of the playback position. A narration's text is spoken as
// consecutive pieces (TextPieces) whose audio follows one another: a piece's first sentence starts
// where the piece's audio starts, and the piece's other sentences by their share of its characters,
// spread over its duration once all its audio is there and over an estimate until then.
class FollowAlong : public QObject
{
    Q_OBJECT
    // Empty while nothing is followed, or while the user has switched it off.
    Q_PROPERTY(QString sentence READ sentence NOTIFY sentenceChanged)
    Q_PROPERTY(bool isEnabled READ isEnabled WRITE setEnabled NOTIFY isEnabledChanged)

public:
    static constexpr qint64 kNever = std::numeric_limits<qint64>::max();
    // Frames per character before any piece of the narration has been heard whole: 24,000 frames per
    // second at 6 characters a word and 165 words a minute.
    static constexpr double kEstimatedFramesPerCharacter = 24000.0 / (6.0 * 165.0 / 60.0);

    struct Sentence
    {
        TextPieces::Range range; // in the text, without the whitespace around it
        QString text;            // whitespace runs as one space
    };

    // `defaults` keeps "showFollowAlong" (on unless switched off); none: always on.
    explicit FollowAlong(UserDefaults *defaults = nullptr, QObject *parent = nullptr);

    bool isEnabled() const { return m_enabled; }
    void setEnabled(bool enabled);

    // A new narration of `text`, spoken as `pieces` (TextPieces::splitRanges) in order, at frame 0.
    void start(const QString &text, const QList<TextPieces::Range> &pieces);
    // A narration whose audio is complete and `frames` long, spoken as one piece (a replay).
    void startComplete(const QString &text, qint64 frames);
    // Nothing is followed.
    void clear();

    // The audio of piece `index` begins at `frame`: every piece before it has ended there.
    void beginPiece(qsizetype index, qint64 frame);
    // Frames of audio received so far.
    void setReceivedFrames(qint64 frames);
    // No more audio will come: the piece begun last ends at the frames received; pieces never begun
    // are never heard.
    void finish();
    // The frame being heard.
    void setPosition(qint64 frame);

    QString sentence() const;
    qsizetype currentIndex() const { return m_current; }
    // Where the sentence heard now starts; 0 when there is none.
    qint64 currentStartFrame() const;

    qsizetype count() const { return qsizetype(m_sentences.size()); }
    const Sentence &sentenceAt(qsizetype index) const { return m_sentences[std::size_t(index)]; }
    // kNever for a sentence that will not be heard.
    qint64 startFrame(qsizetype index) const { return m_starts[std::size_t(index)]; }
    // The sentence heard at `frame`: the last one starting at or before it; -1 when there is none.
    qsizetype indexAt(qint64 frame) const;

Q_SIGNALS:
    void sentenceChanged();
    void isEnabledChanged();

private:
    struct Piece
    {
        qsizetype firstSentence = 0;
        qsizetype sentenceEnd = 0;
        qint64 characters = 0; // from its first to its last non-space character
        std::optional<qint64> startFrame;
    };

    void place();
    void follow();

    UserDefaults *m_defaults;
    bool m_enabled = true;
    std::vector<Sentence> m_sentences;
    std::vector<double> m_shares; // of each sentence's start in its piece, 0…1
    std::vector<qint64> m_starts;
    std::vector<Piece> m_pieces;
    qint64 m_receivedFrames = 0;
    bool m_finished = false;
    qint64 m_position = 0;
    qsizetype m_current = -1;
};
