// SPDX-License-Identifier: GPL-3.0-or-later
#include "speech/FollowAlong.h"

#include "core/UserDefaults.h"

#include <QTextBoundaryFinder>

#include <algorithm>
#include <cmath>
#include <utility>

namespace {

const QString kEnabledKey = QStringLiteral("showFollowAlong");

TextPieces::Range trimmed(const QString &text, TextPieces::Range range)
{
    while (range.start < range.end && text[range.start].isSpace())
        ++range.start;
    while (range.end > range.start && text[range.end - 1].isSpace())
        --range.end;
    return range;
}

// graphemes[i]: the user-perceived characters that begin before UTF-16 index i.
std::vector<qint64> graphemesBefore(const QString &text)
{
    std::vector<qint64> graphemes(std::size_t(text.size()) + 1, 0);
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype previous = 0;
    qint64 count = 0;
    for (qsizetype at = finder.toNextBoundary(); at > 0; at = finder.toNextBoundary()) {
        ++count;
        for (qsizetype i = previous + 1; i <= at; ++i)
            graphemes[std::size_t(i)] = count;
        previous = at;
    }
    return graphemes;
}

} // namespace

FollowAlong::FollowAlong(UserDefaults *defaults, QObject *parent)
    : QObject(parent)
    , m_defaults(defaults)
    , m_enabled(defaults ? defaults->boolean(kEnabledKey).value_or(true) : true)
{}

void FollowAlong::setEnabled(bool enabled)
{
    if (enabled == m_enabled)
        return;
    m_enabled = enabled;
    if (m_defaults)
        m_defaults->setBoolean(kEnabledKey, enabled);
    Q_EMIT isEnabledChanged();
    if (m_current >= 0)
        Q_EMIT sentenceChanged();
}

void FollowAlong::start(const QString &text, const QList<TextPieces::Range> &pieces)
{
    m_sentences.clear();
    m_shares.clear();
    m_pieces.clear();
    m_receivedFrames = 0;
    m_finished = false;
    m_position = 0;
    const bool wasFollowing = std::exchange(m_current, -1) >= 0;

    const std::vector<qint64> graphemes = graphemesBefore(text);
    QList<qsizetype> bounds = TextPieces::sentenceBoundaries(text);
    bounds.prepend(0);
    bounds.append(text.size());
    for (qsizetype i = 0; i + 1 < bounds.size(); ++i) {
        const TextPieces::Range range = trimmed(text, {bounds[i], bounds[i + 1]});
        if (range.start < range.end)
            m_sentences.push_back({range, text.mid(range.start, range.end - range.start).simplified()});
    }

    const QList<TextPieces::Range> spoken =
        pieces.isEmpty() ? QList<TextPieces::Range>{{0, text.size()}} : pieces;
    std::size_t sentence = 0;
    for (qsizetype p = 0; p < spoken.size(); ++p) {
        const TextPieces::Range span = trimmed(text, spoken[p]);
        const bool last = p + 1 == spoken.size();
        Piece piece;
        piece.firstSentence = qsizetype(sentence);
        piece.characters = graphemes[std::size_t(span.end)] - graphemes[std::size_t(span.start)];
        for (; sentence < m_sentences.size() && (last || m_sentences[sentence].range.start < spoken[p].end);
             ++sentence) {
            const qint64 before = graphemes[std::size_t(m_sentences[sentence].range.start)] -
                                  graphemes[std::size_t(span.start)];
            m_shares.push_back(
                piece.characters > 0 ? std::clamp(double(before) / double(piece.characters), 0.0, 1.0) : 0.0);
        }
        piece.sentenceEnd = qsizetype(sentence);
        m_pieces.push_back(piece);
    }
    m_pieces.front().startFrame = 0;
    place();
    follow();
    if (wasFollowing && m_current < 0)
        Q_EMIT sentenceChanged();
}

void FollowAlong::startComplete(const QString &text, qint64 frames)
{
    start(text, {});
    setReceivedFrames(frames);
    finish();
}

void FollowAlong::clear()
{
    m_sentences.clear();
    m_shares.clear();
    m_starts.clear();
    m_pieces.clear();
    m_receivedFrames = 0;
    m_finished = false;
    m_position = 0;
    follow();
}

void FollowAlong::beginPiece(qsizetype index, qint64 frame)
{
    if (index < 0 || index >= qsizetype(m_pieces.size()))
        return;
    m_pieces[std::size_t(index)].startFrame = frame;
    place();
    follow();
}

void FollowAlong::setReceivedFrames(qint64 frames)
{
    if (frames == m_receivedFrames || m_pieces.empty())
        return;
    m_receivedFrames = frames;
    place();
    follow();
}

void FollowAlong::finish()
{
    if (m_pieces.empty())
        return;
    m_finished = true;
    place();
    follow();
}

void FollowAlong::setPosition(qint64 frame)
{
    m_position = frame;
    follow();
}

QString FollowAlong::sentence() const
{
    return m_enabled && m_current >= 0 ? m_sentences[std::size_t(m_current)].text : QString();
}

qint64 FollowAlong::currentStartFrame() const
{
    return m_current >= 0 ? m_starts[std::size_t(m_current)] : 0;
}

qsizetype FollowAlong::indexAt(qint64 frame) const
{
    return qsizetype(std::upper_bound(m_starts.begin(), m_starts.end(), frame) - m_starts.begin()) - 1;
}

void FollowAlong::place()
{
    const auto begun = [this](std::size_t k) { return k < m_pieces.size() && m_pieces[k].startFrame; };
    const auto ended = [&](std::size_t k) { return begun(k) && (begun(k + 1) || m_finished); };
    const auto endOf = [&](std::size_t k) {
        return begun(k + 1) ? *m_pieces[k + 1].startFrame : m_receivedFrames;
    };

    // The pace of what has been heard whole is the best guess for the rest.
    double framesPerCharacter = kEstimatedFramesPerCharacter;
    qint64 frames = 0;
    qint64 characters = 0;
    for (std::size_t k = 0; k < m_pieces.size(); ++k) {
        if (ended(k)) {
            frames += std::max<qint64>(0, endOf(k) - *m_pieces[k].startFrame);
            characters += m_pieces[k].characters;
        }
    }
    if (frames > 0 && characters > 0)
        framesPerCharacter = double(frames) / double(characters);

    m_starts.assign(m_sentences.size(), kNever);
    qint64 cursor = 0;
    for (std::size_t k = 0; k < m_pieces.size(); ++k) {
        const Piece &piece = m_pieces[k];
        if (!begun(k) && m_finished)
            break; // never heard
        const qint64 start = begun(k) ? *piece.startFrame : cursor;
        const auto estimate = qint64(std::llround(double(piece.characters) * framesPerCharacter));
        qint64 duration = estimate;
        if (ended(k))
            duration = std::max<qint64>(0, endOf(k) - start);
        else if (begun(k))
            duration = std::max(m_receivedFrames - start, estimate);
        for (qsizetype s = piece.firstSentence; s < piece.sentenceEnd; ++s)
            m_starts[std::size_t(s)] = start + std::llround(m_shares[std::size_t(s)] * double(duration));
        cursor = start + duration;
    }
}

void FollowAlong::follow()
{
    const qsizetype index = indexAt(m_position);
    if (index == m_current)
        return;
    m_current = index;
    Q_EMIT sentenceChanged();
}
